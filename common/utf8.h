// UTF-8 as jansson takes it (no overlong forms, surrogates or values past U+10FFFF), for
// text that comes from a device and must be stored or shown safely.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Orvex {

// Length of the character that starts at text[at], with its code point; 0 when the bytes
// there start no character.
size_t utf8Character(const std::string& text, size_t at, uint32_t& codepoint);

}  // namespace Orvex
