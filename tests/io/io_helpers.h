// Test helpers of the file formats: a scratch directory, whole-file reads and
// writes, and small meshes written by hand.
#ifndef NODARA_TESTS_IO_HELPERS_H
#define NODARA_TESTS_IO_HELPERS_H

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>

namespace nodara_io_test {

using zq5::dense1D;
using zq5::dense2D;

/// A scratch directory per test, removed with its files afterwards.
struct scratch_dir {
    std::string dir = ::testing::TempDir() + "nodara_io_XXXXXX";
    scratch_dir() {
        if (!mkdtemp(&dir[0])) dir.clear();
    }
    ~scratch_dir() {
        if (!dir.empty()) std::system(("rm -rf '" + dir + "'").c_str());
    }
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;
    std::string path(const std::string& name) const { return dir + "/" + name; }
};

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// Coordinates (rows values per node) and connectivity (rows indices per element).
inline dense2D<double> points(std::size_t rows, std::initializer_list<double> values) {
    return dense2D<double>(rows, values.size() / rows, values);
}
inline dense2D<unsigned> columns(std::size_t rows, std::initializer_list<unsigned> values) {
    return dense2D<unsigned>(rows, values.size() / rows, values);
}

/// The directory of real sample files, or "" when it is absent.
inline std::string data_dir() {
    const std::string dir = NODARA_DATA_DIR;
    return std::ifstream(dir + "/stl/spider_binary.stl") ? dir : "";
}

}  // namespace nodara_io_test

#endif  // NODARA_TESTS_IO_HELPERS_H
