// Listing a directory of data files. Measurement directories hold tens of
// thousands of files, so the listing works on the raw names: one pass over
// the directory, names kept in one buffer, a byte-wise sort, and the sorted
// paths written into one more buffer.

#include "nimbra/io/DirectoryListing.h"

#include <algorithm>
#include <cstdint>
#include <cerrno>
#include <cstring>
#include <string_view>

#ifdef _WIN32
#include <filesystem>
#include <system_error>
#else
#include <dirent.h>
#endif

#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Matching names, stored back to back; offsets and lengths index the buffer
// so that collecting them costs no allocation per name.
struct Names {
    std::string buffer;
    std::vector<std::pair<std::size_t, std::size_t>> spans;

    void add(std::string_view name) {
        spans.emplace_back(buffer.size(), name.size());
        buffer.append(name);
    }
    std::string_view operator[](std::size_t i) const {
        return std::string_view(buffer).substr(spans[i].first, spans[i].second);
    }
};

#ifdef _WIN32
bool collect(const std::string& directory, std::string_view suffix, Names& names) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::directory_iterator entry(fs::path(directory), error);
    for (const fs::directory_iterator end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (endsWith(name, suffix)) names.add(name);
    }
    if (error) {
        NIMBRA_LOG(error) << "listDirectory: cannot read " << directory << ": " << error.message();
        return false;
    }
    return true;
}
#else
bool collect(const std::string& directory, std::string_view suffix, Names& names) {
    DIR* handle = opendir(directory.c_str());
    if (handle == nullptr) {
        NIMBRA_LOG(error) << "listDirectory: cannot open " << directory << ": " << std::strerror(errno);
        return false;
    }
    struct Closer {
        DIR* handle;
        ~Closer() { closedir(handle); }
    } closer{handle};
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(handle);
        if (entry == nullptr) break;
        const std::string_view name(entry->d_name);
        if (endsWith(name, suffix)) names.add(name);
    }
    if (errno != 0) {
        NIMBRA_LOG(error) << "listDirectory: cannot read " << directory << ": " << std::strerror(errno);
        return false;
    }
    return true;
}
#endif

struct Key {
    uint64_t head;
    std::size_t index;
};

// Stable LSD radix sort of the keys by `head`, one byte per pass; a pass
// whose byte is the same for every key changes nothing and is skipped.
void radixSort(std::vector<Key>& keys) {
    std::vector<Key> scratch(keys.size());
    for (int shift = 0; shift < 64; shift += 8) {
        std::size_t counts[256] = {};
        for (const Key& key : keys) ++counts[(key.head >> shift) & 0xFF];
        if (!keys.empty() && counts[(keys[0].head >> shift) & 0xFF] == keys.size()) continue;
        std::size_t position = 0;
        for (std::size_t& count : counts) {
            const std::size_t n = count;
            count = position;
            position += n;
        }
        for (const Key& key : keys) scratch[counts[(key.head >> shift) & 0xFF]++] = key;
        keys.swap(scratch);
    }
}

// The indices of the names in byte order. Names in one directory tend to
// share a long prefix ("plate-000..."), so the 8 bytes after the prefix that
// all names share decide almost every comparison: they are sorted as
// integers, and only names that agree on all 8 are compared whole.
std::vector<std::size_t> sortedOrder(const Names& names) {
    const std::size_t count = names.spans.size();
    std::size_t common = count ? names[0].size() : 0;
    for (std::size_t i = 1; i < count && common; ++i) {
        const std::string_view name = names[i];
        std::size_t k = 0;
        const std::size_t limit = std::min(common, name.size());
        while (k < limit && name[k] == names[0][k]) ++k;
        common = k;
    }
    std::vector<Key> keys(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string_view name = names[i];
        uint64_t head = 0;
        // Missing bytes count as 0, below any byte a name can hold, so a
        // shorter name sorts first as in a string comparison.
        for (std::size_t k = 0; k < 8; ++k) {
            const std::size_t at = common + k;
            head = (head << 8) | (at < name.size() ? static_cast<unsigned char>(name[at]) : 0u);
        }
        keys[i] = Key{head, i};
    }
    radixSort(keys);
    for (std::size_t begin = 0; begin < count;) {
        std::size_t end = begin + 1;
        while (end < count && keys[end].head == keys[begin].head) ++end;
        if (end - begin > 1) {
            // string_view compares its chars as unsigned, i.e. in byte order.
            std::sort(keys.begin() + begin, keys.begin() + end, [&names](const Key& a, const Key& b) {
                return names[a.index] < names[b.index];
            });
        }
        begin = end;
    }
    std::vector<std::size_t> order(count);
    for (std::size_t i = 0; i < count; ++i) order[i] = keys[i].index;
    return order;
}

}  // namespace

std::optional<PathList> listDirectory(const std::string& directory, const std::string& suffix) {
    Names names;
    if (!collect(directory, suffix, names)) return std::nullopt;
    const std::vector<std::size_t> order = sortedOrder(names);

    std::string prefix = directory;
    if (prefix.empty() || prefix.back() != '/') prefix += '/';
    PathList paths;
    paths.text.reserve(order.size() * prefix.size() + names.buffer.size());
    paths.ends.reserve(order.size());
    for (const std::size_t i : order) {
        paths.text.append(prefix).append(names[i]);
        paths.ends.push_back(paths.text.size());
    }
    return paths;
}

}  // namespace nimbra
