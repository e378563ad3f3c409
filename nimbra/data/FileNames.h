#pragma once
#include <optional>
#include <string>

namespace nimbra {

struct Hdf5Name {
    std::string file;
    std::string group;
    std::string index;
};

// "path/to/file.h5:out:12" (or "C:/x.h5:out:12") split into its parts; nothing
// for any name with other than two or three colons.
std::optional<Hdf5Name> splitHdf5Name(const std::string& name);

// The file name that belongs to a dataset name (a plain path or an HDF5
// dataset name) with another extension; nothing when an argument is empty.
std::optional<std::string> changeFileExtension(const std::string& file,
                                               const std::string& extension);

}  // namespace nimbra
