// libFuzzer target: STL_input on arbitrary bytes, then the writers on whatever it
// read.  The bytes go through a scratch file, since the reader takes a path.
#include <zq5/nodara.h>

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

using namespace zq5::nodara;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = "/tmp/nodara_fuzz_stl_" + std::to_string(getpid()) + ".stl";
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    const bool written = std::fwrite(data, 1, size, f) == size;
    if (std::fclose(f) != 0 || !written) return 0;

    zq5::dense2D<double> pos;
    zq5::dense2D<unsigned> connect;
    const int status = STL_input(path.c_str(), pos, connect);
    if (status == 0) {
        // What the reader returns is a valid triangle mesh with every node used.
        if (!check_IDs(connect, EL_TRIA3, static_cast<unsigned>(pos.cols()))) __builtin_trap();
        if (pos.rows() != 3) __builtin_trap();
        STL_output("/dev/null", pos, connect, true);
        STL_output("/dev/null", pos, connect, false);
        vtk_output("/dev/null", pos, connect, EL_TRIA3);
    } else if (status != -1 && status != -2 && status != -3 && status != -199) {
        __builtin_trap();  // an undocumented status
    } else if (!pos.empty() || !connect.empty()) {
        __builtin_trap();  // outputs must be empty on an error
    }
    return 0;
}
