#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nimbra {

// Paths stored back to back in one string: path i is text[ends[i-1], ends[i]).
// One allocation for the whole listing instead of one per path.
struct PathList {
    std::string text;
    std::vector<std::size_t> ends;

    std::size_t size() const { return ends.size(); }
    std::string_view operator[](std::size_t i) const {
        const std::size_t begin = i ? ends[i - 1] : 0;
        return std::string_view(text).substr(begin, ends[i] - begin);
    }
};

// Full paths (directory + "/" + name) of the entries of `directory` whose
// names end with `suffix` (case-sensitive; no recursion), sorted by their
// bytes, which for UTF-8 names is the order of their code points. Nothing
// when the directory cannot be read.
std::optional<PathList> listDirectory(const std::string& directory, const std::string& suffix);

}  // namespace nimbra
