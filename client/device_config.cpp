#include "client/device_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <jansson.h>

#include "common/files.h"
#include "common/paths.h"
#include "common/raii.h"

namespace Orvex {

namespace {

// Settings and passwords are a few hundred bytes; anything far larger is not ours.
constexpr off_t kMaxFileSize = 65536;

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw ConfigError(path + ": " + reason);
}

[[noreturn]] void failErrno(const std::string& path, const char* action)
{
    fail(path, std::string(action) + ": " + std::strerror(errno));
}

// The settings folder, made 0700 if missing; it must be a directory of our own that
// nobody else can write to.
void ownFolder()
{
    const char* folder = Paths::kConfigDirectory;
    if (::mkdir(folder, 0700) != 0 && errno != EEXIST)
        failErrno(folder, "cannot create the folder");
    struct stat st{};
    if (::lstat(folder, &st) != 0)
        failErrno(folder, "cannot read the folder");
    if (!S_ISDIR(st.st_mode) || st.st_uid != ::geteuid() || (st.st_mode & 022) != 0)
        fail(folder, "not a folder of our own that only we can write to");
}

// The content of a root-only file; nothing when there is no such file.
std::optional<std::string> readRootOnly(const std::string& path)
{
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd && errno == ENOENT)
        return std::nullopt;
    if (!fd)
        failErrno(path, errno == ELOOP ? "refused" : "cannot open");
    struct stat st{};
    if (::fstat(fd.get(), &st) != 0)
        failErrno(path, "cannot read");
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid())
        fail(path, "not a regular file of our own user");
    if ((st.st_mode & 077) != 0)
        fail(path, "others may read or write it (it must be mode 0600)");
    if (st.st_size > kMaxFileSize)
        fail(path, "larger than 64 KiB");
    std::string text(static_cast<size_t>(st.st_size), '\0');
    ssize_t n = ::read(fd.get(), &text[0], text.size());
    if (n < 0)
        failErrno(path, "cannot read");
    text.resize(static_cast<size_t>(n));
    return text;
}

std::string requireText(json_t* object, const char* key, const std::string& path)
{
    json_t* value = json_object_get(object, key);
    if (!json_is_string(value) || json_string_length(value) == 0)
        fail(path, std::string("\"") + key + "\" is not a non-empty string");
    return json_string_value(value);
}

json_int_t requireNumber(json_t* object, const char* key, json_int_t low, json_int_t high, const std::string& path)
{
    json_t* value = json_object_get(object, key);
    if (!json_is_integer(value) || json_integer_value(value) < low || json_integer_value(value) > high)
        fail(path, std::string("\"") + key + "\" is not a number from " + std::to_string(low) + " to " +
                       std::to_string(high));
    return json_integer_value(value);
}

void fromJson(json_t* o, const std::string& path, DeviceConfig& config)
{
    if (requireText(o, "mac", path) != config.mac)
        fail(path, "holds the settings of another MAC");
    config.ip = requireText(o, "ip", path);
    config.port = static_cast<int>(requireNumber(o, "port", 1, 65535, path));
    config.user = requireText(o, "user", path);
    json_t* secure = json_object_get(o, "secure");
    if (secure != nullptr && !json_is_boolean(secure))
        fail(path, "\"secure\" is not true or false");
    config.secure = json_is_true(secure);
    if (json_object_get(o, "idle") != nullptr)
        config.idleSeconds = static_cast<long>(requireNumber(o, "idle", 0, Idle::kMaxSeconds, path));
}

void removeIfThere(const std::string& path, bool& removed)
{
    if (::unlink(path.c_str()) == 0)
        removed = true;
    else if (errno != ENOENT)
        failErrno(path, "cannot remove");
}

}  // namespace

void writeRootOnlyFile(const std::string& path, const std::string& text)
{
    ownFolder();
    Replaced result = replaceFile(path, text, 0600, true);
    if (result == Replaced::NotCreated)
        failErrno(path, "cannot create");
    if (result == Replaced::NotWritten)
        failErrno(path, "cannot write");
}

void writeDeviceConfig(const DeviceConfig& c)
{
    JsonRef json = JsonRef::adopt(json_pack("{ss ss si ss sb sI}", "mac", c.mac.c_str(), "ip", c.ip.c_str(), "port",
        c.port, "user", c.user.c_str(), "secure", c.secure, "idle", static_cast<json_int_t>(c.idleSeconds)));
    std::string path = Paths::configPath(c.mac);
    char* text = json ? json_dumps(json.get(), JSON_INDENT(2)) : nullptr;
    if (text == nullptr)
        fail(path, "the settings are not valid UTF-8 text");
    std::string content = std::string(text) + "\n";
    free(text);
    writeRootOnlyFile(path, content);
}

bool readDeviceConfig(const std::string& mac, DeviceConfig& config)
{
    std::string path = Paths::configPath(mac);
    std::optional<std::string> text = readRootOnly(path);
    if (!text)
        return false;
    json_error_t error{};
    JsonRef json = JsonRef::adopt(json_loadb(text->data(), text->size(), 0, &error));
    if (!json_is_object(json.get()))
        fail(path, json ? "not a JSON object" : std::string("not JSON: ") + error.text);
    DeviceConfig read;
    read.mac = mac;
    fromJson(json.get(), path, read);
    config = read;
    return true;
}

bool removeDeviceFiles(const std::string& mac)
{
    bool removed = false;
    removeIfThere(Paths::configPath(mac), removed);
    removeIfThere(Paths::credentialPath(mac, true), removed);
    removeIfThere(Paths::credentialPath(mac, false), removed);
    return removed;
}

std::optional<std::string> readPasswordCredential()
{
    const char* directory = std::getenv("CREDENTIALS_DIRECTORY");
    if (directory == nullptr || *directory == '\0')
        return std::nullopt;
    std::string path = std::string(directory) + "/" + Paths::kCredentialName;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd && errno == ENOENT)
        return std::nullopt;
    if (!fd)
        failErrno(path, "cannot open the credential");
    std::string pass(4096, '\0');
    ssize_t n = ::read(fd.get(), &pass[0], pass.size());
    if (n < 0)
        failErrno(path, "cannot read the credential");
    pass.resize(static_cast<size_t>(n));
    if (!pass.empty() && pass.back() == '\n')
        pass.pop_back();
    return pass;
}

}  // namespace Orvex
