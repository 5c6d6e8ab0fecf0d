// zs-call: calls one method on a bus service from the command line.
// Exit status: 0 a reply arrived, 1 the call failed, 2 usage error, 4 an error reply.
#include "zservice/channel.h"
#include "zservice/internal.h"

#include <getopt.h>
#include <jansson.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char* const kUsage =
    "usage: zs-call [-t SECONDS] [--fd] [--json=short|pretty] ADDRESS METHOD [JSON|-]\n"
    "Calls METHOD on the bus service at ADDRESS (\"@name\" for an abstract socket) with the\n"
    "JSON given, read from standard input for \"-\", or an empty body; prints the reply.\n"
    "  -t, --timeout SECONDS  bound the whole call (default 30; 0 waits without limit)\n"
    "      --fd               hand standard output to the service as the reply descriptor\n"
    "      --json=FORMAT      short: print the reply as it came; pretty: indent a JSON\n"
    "                         reply (default: pretty on a terminal, short otherwise)\n"
    "      --pretty           same as --json=pretty\n"
    "  -h, --help             show this text\n"
    "      --version          print the version\n"
    "Exit status: 0 a reply arrived, 1 the call failed (nobody listening, time-out, an\n"
    "untrusted listener, ...), 2 usage error, 4 the reply is a JSON object whose\n"
    "\"error_code\" is not 0 (the reply is printed all the same).\n";

constexpr int kOk = 0;
constexpr int kCallFailed = 1;
constexpr int kUsageError = 2;
constexpr int kErrorReply = 4;

enum class Format { Auto, Short, Pretty };

struct Arguments {
    int timeout = 30;
    bool passStdout = false;
    Format format = Format::Auto;
    const char* address = nullptr;
    const char* method = nullptr;
    const char* body = nullptr;  // nullptr: none; "-": standard input
};

int usageError(const char* message)
{
    if (message)
        fprintf(stderr, "zs-call: %s\n", message);
    fputs(kUsage, stderr);
    return kUsageError;
}

bool parseTimeout(const char* text, int& out)
{
    char* end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (errno || end == text || *end || value < 0 || value > INT_MAX / 1000)
        return false;
    out = static_cast<int>(value);
    return true;
}

bool parseFormat(const char* text, Format& out)
{
    if (strcmp(text, "short") == 0)
        out = Format::Short;
    else if (strcmp(text, "pretty") == 0)
        out = Format::Pretty;
    else
        return false;
    return true;
}

constexpr int kGoOn = -1;

// kGoOn, or the exit status when the command line ends the program.
int parseArguments(int argc, char** argv, Arguments& args)
{
    static const option options[] = {{"timeout", required_argument, nullptr, 't'},
                                     {"fd", no_argument, nullptr, 'f'},
                                     {"pretty", no_argument, nullptr, 'p'},
                                     {"json", required_argument, nullptr, 'j'},
                                     {"help", no_argument, nullptr, 'h'},
                                     {"version", no_argument, nullptr, 'V'},
                                     {nullptr, 0, nullptr, 0}};
    int c;
    while ((c = getopt_long(argc, argv, "+t:h", options, nullptr)) != -1) {
        if (c == 't' && !parseTimeout(optarg, args.timeout))
            return usageError("the time-out must be a whole number of seconds");
        if (c == 'f')
            args.passStdout = true;
        else if (c == 'p')
            args.format = Format::Pretty;
        else if (c == 'j' && !parseFormat(optarg, args.format))
            return usageError("--json takes short or pretty");
        else if (c == 'h')
            return fputs(kUsage, stdout) < 0 ? kCallFailed : kOk;
        else if (c == 'V')
            return printf("zs-call %s\n", ORVEX_VERSION) < 0 ? kCallFailed : kOk;
        else if (c == '?')
            return usageError(nullptr);
    }
    const int rest = argc - optind;
    if (rest < 2 || rest > 3)
        return usageError(rest < 2 ? "ADDRESS and METHOD are required" : "too many arguments");
    args.address = argv[optind];
    args.method = argv[optind + 1];
    args.body = rest == 3 ? argv[optind + 2] : nullptr;
    if (!*args.method || strlen(args.method) > ZS_MAX_NAME)
        return usageError("METHOD must be 1 to 255 bytes long");
    return kGoOn;
}

// read(2) until end of file: stdio's large reads ask the terminal again after a Ctrl-D.
bool readStdin(std::string& out)
{
    if (isatty(STDIN_FILENO))
        fputs("zs-call: waiting for JSON on standard input (end it with Ctrl-D)\n", stderr);
    char chunk[65536];
    for (;;) {
        const ssize_t n = read(STDIN_FILENO, chunk, sizeof(chunk));
        if (n == 0)
            return true;
        if (n < 0 && errno != EINTR)
            return false;
        if (n > 0)
            out.append(chunk, static_cast<size_t>(n));
    }
}

bool blank(const std::string& text)
{
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

// The position only: jansson's error text quotes the input, which may hold a password.
int checkJson(const std::string& text, const char* where)
{
    json_error_t error;
    json_t* value = json_loadb(text.data(), text.size(), JSON_DECODE_ANY, &error);
    if (value) {
        json_decref(value);
        return kGoOn;
    }
    char message[160];
    snprintf(message, sizeof(message), "%s is not valid JSON (line %d, column %d)", where, error.line,
             error.column);
    return usageError(message);
}

// kGoOn, or the exit status when the body is unusable.
int loadBody(const Arguments& args, zs_io* io)
{
    std::string text;
    const bool fromStdin = args.body && strcmp(args.body, "-") == 0;
    if (fromStdin && !readStdin(text)) {
        fprintf(stderr, "zs-call: cannot read standard input: %s\n", strerror(errno));
        return kCallFailed;
    }
    if (!fromStdin && args.body)
        text = args.body;
    if (blank(text))
        return kGoOn;
    const int status = checkJson(text, fromStdin ? "standard input" : "the body");
    if (status != kGoOn)
        return status;
    if (zs_io_write(io, text.data(), text.size()) < 0) {
        fputs("zs-call: out of memory\n", stderr);
        return kCallFailed;
    }
    return kGoOn;
}

void reportUntrusted(const char* address)
{
    pid_t pid = 0;
    uid_t uid = 0;
    if (zs_listener(address, &pid, &uid) == 0)
        fprintf(stderr, "zs-call: the listener at %s runs as uid %u, neither root nor us: nothing sent\n",
                address, static_cast<unsigned>(uid));
    else
        fprintf(stderr, "zs-call: the listener at %s is not trusted: nothing sent\n", address);
}

// What a failed call says, by its errno. Every text is given the address and then the time
// limit, which only the time-out shows.
struct FailureText {
    int error;
    const char* format;
};
constexpr FailureText kFailureTexts[] = {
    {ECONNREFUSED, "zs-call: no service listening at %s\n"},
    {ENOENT, "zs-call: no service listening at %s\n"},
    {ETIMEDOUT, "zs-call: no reply from %s within %d s\n"},
    {EPROTO, "zs-call: %s closed the call without a valid reply\n"},
    {EMSGSIZE, "zs-call: the call or the reply of %s exceeds 16 MiB\n"},
    {ENAMETOOLONG, "zs-call: address too long for a Unix socket: %s\n"},
    {EINVAL, "zs-call: invalid address: %s\n"},
};

// The text of a failure that has its own, or null.
const char* failureFormat(int error)
{
    for (const FailureText& text : kFailureTexts)
        if (text.error == error)
            return text.format;
    return nullptr;
}

void reportFailure(const Arguments& args, int error)
{
    if (error == EACCES)
        reportUntrusted(args.address);
    else if (const char* format = failureFormat(error))
        fprintf(stderr, format, args.address, args.timeout);
    else
        fprintf(stderr, "zs-call: call to %s failed: %s\n", args.address, strerror(error));
}

// Pretty output re-indents a JSON reply; anything else is printed as it came.
std::string render(const char* body, size_t size, json_t* value, bool pretty)
{
    std::string out(body, size);
    if (pretty) {
        if (char* text = value ? json_dumps(value, JSON_INDENT(2) | JSON_ENCODE_ANY) : nullptr) {
            out = text;
            free(text);
        }
    }
    if (out.empty() || out.back() != '\n')
        out += '\n';
    return out;
}

// A JSON object reply whose "error_code" is a number other than 0.
bool errorReply(json_t* value)
{
    json_t* code = json_is_object(value) ? json_object_get(value, "error_code") : nullptr;
    return json_is_number(code) && json_number_value(code) != 0;
}

int printReply(const Arguments& args, zs_io* io)
{
    const size_t size = zs_io_size(io);
    // With --fd the service has written to our standard output itself.
    if (size == 0 && args.passStdout)
        return kOk;
    const char* body = zs_io_read(io, 0);
    json_t* value = json_loadb(body, size, JSON_DECODE_ANY, nullptr);
    const bool pretty = args.format == Format::Pretty || (args.format == Format::Auto && isatty(STDOUT_FILENO));
    const std::string out = render(body, size, value, pretty);
    const int status = errorReply(value) ? kErrorReply : kOk;
    json_decref(value);
    if (fwrite(out.data(), 1, out.size(), stdout) != out.size() || fflush(stdout) != 0) {
        fprintf(stderr, "zs-call: cannot write the reply of %s: %s\n", args.address, strerror(errno));
        return kCallFailed;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    Arguments args;
    int status = parseArguments(argc, argv, args);
    if (status != kGoOn)
        return status;
    Orvex::ZsIoPtr io = Orvex::makeZsIo();
    if (!io)
        return kCallFailed;
    status = loadBody(args, io.get());
    if (status != kGoOn)
        return status;
    fflush(stdout);
    if (zs_call(args.address, args.method, io.get(), args.timeout, args.passStdout ? STDOUT_FILENO : -1) != 0) {
        reportFailure(args, errno);
        return kCallFailed;
    }
    return printReply(args, io.get());
}
