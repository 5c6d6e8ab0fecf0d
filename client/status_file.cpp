#include "client/status_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <jansson.h>

#include "common/files.h"
#include "common/paths.h"
#include "common/raii.h"
#include "common/utf8.h"

namespace Orvex {

namespace {

bool ownFolder(const char* folder)
{
    if (::mkdir(folder, 0755) != 0 && errno != EEXIST)
        return false;
    struct stat st{};
    if (::lstat(folder, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid()) {
        errno = EPERM;
        return false;
    }
    return true;
}

// Valid UTF-8 of at most kFieldLimit bytes, cut at a character's start; a byte that starts
// no character becomes '?'.
std::string bounded(const std::string& value)
{
    std::string out;
    uint32_t codepoint = 0;
    for (size_t i = 0; i < value.size();) {
        const size_t length = utf8Character(value, i, codepoint);
        if (out.size() + std::max<size_t>(length, 1) > kFieldLimit)
            break;
        if (length == 0)
            out += '?';
        else
            out.append(value, i, length);
        i += std::max<size_t>(length, 1);
    }
    return out;
}

JsonRef toJson(const StatusRecord& r)
{
    JsonRef o = JsonRef::adopt(json_pack("{ss si sI ss sI sI si ss si sb ss ss ss ss sb ss sI sb}", "mac", r.mac.c_str(),
        "pid", static_cast<int>(r.pid), "started", static_cast<json_int_t>(r.started), "binary", r.binary.c_str(),
        "binary_inode", static_cast<json_int_t>(r.binaryInode), "binary_mtime", static_cast<json_int_t>(r.binaryMtime),
        "family", r.family, "host", bounded(r.host).c_str(), "port", static_cast<int>(r.port), "secure", r.secure,
        "model", bounded(r.model).c_str(), "serial", bounded(r.serial).c_str(), "firmware", bounded(r.firmware).c_str(),
        "hostname", bounded(r.hostname).c_str(), "signed_in", r.signedIn, "failure", bounded(r.failure).c_str(),
        "last_use", static_cast<json_int_t>(r.lastUse), "systemd", r.systemd));
    if (o && !r.end.empty())
        json_object_update(o.get(), JsonRef::adopt(json_pack("{ss sb ss sI}", "end", r.end.c_str(), "abnormal",
            r.abnormal, "reason", bounded(r.reason).c_str(), "ended", static_cast<json_int_t>(r.ended))).get());
    return o;
}

std::string text(json_t* object, const char* key)
{
    const char* value = json_string_value(json_object_get(object, key));
    return value ? value : "";
}

json_int_t number(json_t* object, const char* key)
{
    return json_integer_value(json_object_get(object, key));
}

}  // namespace

const char* familyName(int family)
{
    return family == 1 ? "token" : family == 2 ? "legacy" : "none";
}

std::string renderStatus(const StatusRecord& record)
{
    JsonRef json = toJson(record);
    std::string text;
    if (char* dumped = json ? json_dumps(json.get(), JSON_COMPACT) : nullptr) {
        text = dumped;
        free(dumped);
    }
    return text;
}

bool writeStatus(const StatusRecord& record)
{
    if (!ownFolder(Paths::kStatusDirectory))
        return false;
    // One write: json_dumpfd would make a system call per token, at every keep-alive tick.
    std::string text = renderStatus(record) + '\n';
    return text.size() > 1 && replaceFile(Paths::statusPath(record.mac), text, 0644, false) == Replaced::Done;
}

bool readStatus(const std::string& mac, StatusRecord& r)
{
    UniqueFd fd(::open(Paths::statusPath(mac).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st{};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > 65536)
        return false;
    JsonRef json = JsonRef::adopt(json_loadfd(fd.get(), 0, nullptr));
    json_t* o = json.get();
    if (!json_is_object(o) || text(o, "mac") != mac)
        return false;
    r.mac = mac;
    r.pid = static_cast<pid_t>(number(o, "pid"));
    r.started = static_cast<time_t>(number(o, "started"));
    r.binary = text(o, "binary");
    r.binaryInode = static_cast<unsigned long>(number(o, "binary_inode"));
    r.binaryMtime = static_cast<time_t>(number(o, "binary_mtime"));
    r.family = static_cast<int>(number(o, "family"));
    r.host = text(o, "host");
    r.port = static_cast<unsigned>(number(o, "port"));
    r.secure = json_is_true(json_object_get(o, "secure"));
    r.model = text(o, "model");
    r.serial = text(o, "serial");
    r.firmware = text(o, "firmware");
    r.hostname = text(o, "hostname");
    r.signedIn = json_is_true(json_object_get(o, "signed_in"));
    r.failure = text(o, "failure");
    r.lastUse = static_cast<time_t>(number(o, "last_use"));
    r.systemd = json_is_true(json_object_get(o, "systemd"));
    r.end = text(o, "end");
    r.abnormal = json_is_true(json_object_get(o, "abnormal"));
    r.reason = text(o, "reason");
    r.ended = static_cast<time_t>(number(o, "ended"));
    return true;
}

void removeStatus(const std::string& mac)
{
    ::unlink(Paths::statusPath(mac).c_str());
}

}  // namespace Orvex
