#include "formats.h"

#include <algorithm>
#include <cctype>

namespace nodara_cli {

using namespace zq5;
using namespace zq5::nodara;

namespace {

std::string explain_stl_read(int status) {
    switch (status) {
        case -1: return "cannot be opened";
        case -2: return "is not an STL file (no 'solid' line and shorter than a binary header)";
        case -3: return "is malformed or truncated";
        case -199: return "is too large for the memory available";
        default: return "could not be read";
    }
}

bool read_stl(const std::string& path, mesh& m, failure& why) {
    block b;
    b.type = EL_TRIA3;
    const int status = STL_input(path.c_str(), m.pos, b.connect);
    if (status < 0) {
        why = {status, explain_stl_read(status)};
        return false;
    }
    m.blocks.clear();
    m.blocks.push_back(b);
    return true;
}

bool write_stl(const std::string& path, const mesh& m, const write_options& o, failure& why) {
    if (m.blocks.size() != 1 || m.blocks[0].type != EL_TRIA3) {
        why = {0, "STL holds linear triangles only; this mesh has other elements"};
        return false;
    }
    const int status = STL_output(path.c_str(), m.pos, m.blocks[0].connect, o.ascii);
    if (status < 0) {
        why.status = status;
        why.message = status == -1 ? "cannot be written" : status == -2 ? "coordinates must have 2 or 3 rows"
                                                                           : "the triangles name nodes that do not exist";
        return false;
    }
    return true;
}

bool write_vtk(const std::string& path, const mesh& m, const write_options&, failure& why) {
    std::vector<dense2D<unsigned>> connects;
    dense1D<int> types;
    for (const block& b : m.blocks) {
        connects.push_back(b.connect);
        if (!types.push_back(static_cast<int>(b.type))) {
            why = {-199, "out of memory"};
            return false;
        }
    }
    const int status = vtk_output(path.c_str(), m.pos, connects.data(), connects.data() + connects.size(), types);
    if (status < 0) {
        why.status = status;
        switch (status) {
            case -1: why.message = "cannot be written, or holds an element kind VTK files cannot take"; break;
            case -2: why.message = "coordinates must have 2 or 3 rows (or an element kind VTK files cannot take)"; break;
            case -3: why.message = "an element names a node that does not exist"; break;
            default: why.message = "could not be written"; break;
        }
        return false;
    }
    return true;
}

const format formats[] = {
    {".stl", "STL", read_stl, write_stl},
    {".vtk", "VTK legacy", nullptr, write_vtk},
};

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

}  // namespace

const format* format_of(const std::string& path) {
    const std::string p = lower(path);
    for (const format& f : formats) {
        const std::string ext = f.extension;
        if (p.size() > ext.size() && p.compare(p.size() - ext.size(), ext.size(), ext) == 0) return &f;
    }
    return nullptr;
}

std::string format_list() {
    std::string s;
    for (const format& f : formats) {
        if (!s.empty()) s += ", ";
        s += std::string(f.extension + 1) + " (";
        if (f.read) s += "read";
        if (f.read && f.write) s += ", ";
        if (f.write) s += "write";
        s += ")";
    }
    return s;
}

}  // namespace nodara_cli
