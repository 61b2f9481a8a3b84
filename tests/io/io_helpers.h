// Test helpers of the file formats: a scratch directory, whole-file reads and
// writes, and small meshes written by hand.
#ifndef NODARA_TESTS_IO_HELPERS_H
#define NODARA_TESTS_IO_HELPERS_H

#include <zq5/nodara.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>

namespace nodara_io_test {

using zq5::dense1D;
using zq5::dense2D;

/// A scratch directory per test, removed with its files afterwards.
class scratch_dir {
public:
    scratch_dir() {
        std::string tmpl = ::testing::TempDir() + "nodara_io_XXXXXX";
        char* made = mkdtemp(&tmpl[0]);
        if (made) dir_ = made;
    }
    ~scratch_dir() {
        if (!dir_.empty()) std::system(("rm -rf '" + dir_ + "'").c_str());
    }
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    const std::string& dir() const { return dir_; }

private:
    std::string dir_;
};

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// Coordinates from a list of points (rows values each).
inline dense2D<double> points(std::size_t rows, std::initializer_list<double> values) {
    return dense2D<double>(rows, values.size() / rows, values);
}

/// Connectivity from columns given one after the other.
inline dense2D<unsigned> columns(std::size_t rows, std::initializer_list<unsigned> values) {
    return dense2D<unsigned>(rows, values.size() / rows, values);
}

/// The data directory of real sample files, or "" when it is absent.
inline std::string data_dir() {
#ifdef NODARA_DATA_DIR
    std::ifstream probe(std::string(NODARA_DATA_DIR) + "/stl/spider_binary.stl");
    if (probe) return NODARA_DATA_DIR;
#endif
    return "";
}

}  // namespace nodara_io_test

#endif  // NODARA_TESTS_IO_HELPERS_H
