#pragma once
// Text conversion between the library's UTF-8 and the data file's UTF-16
// big-endian code units.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace nimbra::utf {

// Converts `units` big-endian UTF-16 code units starting at `bytes`. Stops
// silently at a code unit 0 or at the first ill-formed surrogate, keeping what
// was converted before.
std::string fromUtf16BE(const uint8_t* bytes, std::size_t units);

// UTF-8 to UTF-16 code units. Ill-formed UTF-8 sequences become U+FFFD so that
// every text can be written.
std::u16string toUtf16(const std::string& text);

}  // namespace nimbra::utf
