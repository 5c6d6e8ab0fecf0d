// Replacing a small file whole, so that a reader finds the old content or the new, never a
// part of either, and nothing planted at the path is followed.
#pragma once

#include <sys/types.h>

#include <string>

namespace Orvex {

// How far replaceFile got: Done, or the step that failed (errno tells why).
enum class Replaced { Done, NotCreated, NotWritten };

// Writes text to a new file beside path ("<path>.XXXXXX", made with O_EXCL, so no planted
// name is followed and no reader sees more than the creator's 0600), gives it mode, with
// sync puts it on the disk, then renames it over path. On failure nothing is left behind.
Replaced replaceFile(const std::string& path, const std::string& text, mode_t mode, bool sync);

}  // namespace Orvex
