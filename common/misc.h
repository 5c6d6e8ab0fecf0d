// Small shared utilities: formatting to strings and descriptors, temporary files,
// whole-file reads and Base64. Each writes the entry/exit trace lines.
#pragma once

#include <string>

namespace Orvex {

// printf-style formatting into a std::string (vsnprintf twice: measure, then fill).
std::string strformat(const char* format, ...) __attribute__((format(printf, 1, 2)));
// printf-style formatting straight onto a descriptor (vdprintf); failures are ignored.
void fdprintf(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));
// mkstemp on a writable template ending in XXXXXX, rewritten in place; descriptor or -1.
int create_temp_file(char* path);
// Whole content of a file, byte for byte; "" if it cannot be opened.
std::string get_file_context(const char* path);
// Base64 on one line (the encoder's "\r\n" line breaks removed), and back.
std::string btoa(const std::string& data);
std::string atob(const std::string& data);

}  // namespace Orvex
