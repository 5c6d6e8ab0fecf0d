#include "common/version.h"

namespace Orvex {

const char* version()
{
    return ORVEX_VERSION;
}

}  // namespace Orvex
