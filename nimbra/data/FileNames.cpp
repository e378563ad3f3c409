#include "nimbra/data/FileNames.h"

#include <vector>

#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

constexpr char kSeparator = '/';

std::size_t lastSeparator(const std::string& path) { return path.find_last_of("/\\"); }

// Position of the extension's "." within the last component, or npos. The
// component ends at its first ":"; "." and ".." and names that start with
// their only "." have no extension.
std::size_t extensionStart(const std::string& path, std::size_t& componentEnd) {
    const std::size_t sep = lastSeparator(path);
    const std::size_t begin = sep == std::string::npos ? 0 : sep + 1;
    componentEnd = path.find(':', begin);
    if (componentEnd == std::string::npos) componentEnd = path.size();
    const std::string component = path.substr(begin, componentEnd - begin);
    if (component == "." || component == "..") return std::string::npos;
    const std::size_t dot = component.rfind('.');
    if (dot == std::string::npos || dot == 0) return std::string::npos;
    return begin + dot;
}

}  // namespace

std::optional<Hdf5Name> splitHdf5Name(const std::string& name) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t colon = name.find(':', start);
        if (colon == std::string::npos) {
            parts.push_back(name.substr(start));
            break;
        }
        parts.push_back(name.substr(start, colon - start));
        start = colon + 1;
    }
    if (parts.size() == 3) return Hdf5Name{parts[0], parts[1], parts[2]};
    if (parts.size() == 4) return Hdf5Name{parts[0] + ":" + parts[1], parts[2], parts[3]};
    return std::nullopt;
}

std::optional<std::string> changeFileExtension(const std::string& file, const std::string& extension) {
    if (file.empty() || extension.empty()) {
        NIMBRA_LOG(warning) << "File and extension should not be empty";
        return std::nullopt;
    }
    std::string base = file;
    if (const auto hdf5 = splitHdf5Name(file)) {
        const std::string& h5 = hdf5->file;
        const std::size_t sep = lastSeparator(h5);
        const std::string last = sep == std::string::npos ? h5 : h5.substr(sep + 1);
        std::string stem = last;
        const std::size_t dot = stem.rfind('.');
        if (dot != std::string::npos && dot != 0 && stem != "..") stem.erase(dot);
        if (stem.size() >= 4 && stem.compare(stem.size() - 4, 4, "_out") == 0) stem.erase(stem.size() - 4);
        const std::string newName = stem + "-" + hdf5->index + "_0";
        std::string parent = sep == std::string::npos ? std::string() : h5.substr(0, sep);
        while (!parent.empty() && (parent.back() == '/' || parent.back() == '\\')) parent.pop_back();
        base = parent.empty() ? newName : parent + kSeparator + newName;
    }
    std::size_t componentEnd = 0;
    const std::size_t dot = extensionStart(base, componentEnd);
    if (dot != std::string::npos) base.erase(dot, componentEnd - dot);
    if (extension.front() != '.') base.insert(dot == std::string::npos ? componentEnd : dot, ".");
    const std::size_t at = (dot == std::string::npos ? componentEnd : dot) + (extension.front() != '.' ? 1 : 0);
    base.insert(at, extension);
    return base;
}

}  // namespace nimbra
