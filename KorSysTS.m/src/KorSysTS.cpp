#include "KorSysTS.h"

namespace KorSysTS {
char const* standInVersion() {
    return "KorSysTS stand-in 1.0";
}
}  // namespace KorSysTS
