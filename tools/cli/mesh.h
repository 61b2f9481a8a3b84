// The command-line program's view of a mesh file: coordinates and one or more
// connectivity blocks, each with its element type.
#ifndef NODARA_TOOLS_CLI_MESH_H
#define NODARA_TOOLS_CLI_MESH_H

#include <zq5/nodara.h>

#include <string>
#include <vector>

namespace nodara_cli {

struct block {
    zq5::dense2D<unsigned> connect;
    zq5::nodara::element_type type = zq5::nodara::EL_NONE;
};

struct mesh {
    zq5::dense2D<double> pos;
    std::vector<block> blocks;
};

/// Options that some writers take.
struct write_options {
    bool ascii = false;
};

/// What went wrong, for the one-line error message.
struct failure {
    int status = 0;        // the library's status (0 when the program itself refused)
    std::string message;   // what is wrong, in words
};

/// Plural name of an element type for reports ("triangles", "tetrahedra").
const char* type_name(zq5::nodara::element_type type);

}  // namespace nodara_cli

#endif  // NODARA_TOOLS_CLI_MESH_H
