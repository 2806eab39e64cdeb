// Names for code addresses of the running process, for reports.
#pragma once

#include <string>
#include <vector>

namespace qk::platform {

// A name for each address, in order: "function (file:line)" when the
// program's symbols and line tables tell it (through addr2line), else
// "function+0xoff (module)" from the dynamic symbols, else "0x...". An
// address in readable data that holds a short printable text (a tag such as
// a source file name) is named by that text in quotes.
std::vector<std::string> nameAddresses(std::vector<void const*> const& addresses);

}  // namespace qk::platform
