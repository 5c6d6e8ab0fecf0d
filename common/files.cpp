#include "common/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "common/raii.h"

namespace Orvex {

Replaced replaceFile(const std::string& path, const std::string& text, mode_t mode, bool sync)
{
    std::string temporary = path + ".XXXXXX";
    UniqueFd fd(::mkostemp(&temporary[0], O_CLOEXEC));
    if (!fd)
        return Replaced::NotCreated;
    bool ok = ::fchmod(fd.get(), mode) == 0 &&
              ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
              (!sync || ::fsync(fd.get()) == 0);
    int saved = errno;
    fd.reset();
    if (ok && ::rename(temporary.c_str(), path.c_str()) == 0)
        return Replaced::Done;
    saved = ok ? errno : saved;
    ::unlink(temporary.c_str());
    errno = saved;
    return Replaced::NotWritten;
}

}  // namespace Orvex
