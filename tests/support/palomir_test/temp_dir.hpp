#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

namespace palomir_test {

/// The whole of a file, or nothing when it cannot be read.
inline std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

/// A fresh directory under the system's temporary directory, removed with
/// everything in it when the object goes.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "palomir-test-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create a temporary directory");
        _path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return _path; }
    std::filesystem::path operator/(const std::string& name) const { return _path / name; }

private:
    std::filesystem::path _path;
};

}  // namespace palomir_test
