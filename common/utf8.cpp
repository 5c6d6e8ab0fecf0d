#include "common/utf8.h"

namespace Orvex {

size_t utf8Character(const std::string& text, size_t at, uint32_t& codepoint)
{
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) {
        codepoint = lead;
        return 1;
    }
    const size_t length = lead >= 0xc2 && lead <= 0xdf ? 2 : lead >= 0xe0 && lead <= 0xef ? 3 : lead >= 0xf0 && lead <= 0xf4 ? 4 : 0;
    if (length == 0 || length > text.size() - at)
        return 0;
    uint32_t value = lead & (0x7f >> length);
    for (size_t k = 1; k < length; ++k) {
        const auto next = static_cast<unsigned char>(text[at + k]);
        if ((next & 0xc0) != 0x80)
            return 0;
        value = (value << 6) | (next & 0x3f);
    }
    const uint32_t least = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
    if (value < least || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff))
        return 0;
    codepoint = value;
    return length;
}

}  // namespace Orvex
