// The library's version texts, the host's version text, the re-entrant
// tokenizer, and the runtime's word size.
#pragma once

#include "qkExport.h"

// "33.0.0.0".
QK_EXPORT_C char const* qkcInternalVersion;
// The library's release text.
QK_EXPORT_C char const* qkcVersion;
QK_EXPORT_C char const* qkcQkffVersion;

// The text given to setQkcVersion, else the release text.
QK_EXPORT_C char const* getQkcVersion();
// Only the first call with a text has an effect: up to 39 characters of it
// are kept for the rest of the process. Safe from any thread.
QK_EXPORT_C void setQkcVersion(char const* v);
// 64.
QK_EXPORT_C int getRuntimeBitMode();

// The next token of the text: from str, or from *save when str is null,
// past any bytes in delims, up to the next such byte (overwritten by a
// zero). *save then points past it (null when the token ended the text).
// Null when no token is left, and when delims, save or *save is null: so a
// caller sets *save (to str, say) before the first call.
QK_EXPORT_C char* KorSysStrtok(char* str, char const* delims, char** save);
