// The table of file formats the program reads and writes, chosen by extension.
#ifndef NODARA_TOOLS_CLI_FORMATS_H
#define NODARA_TOOLS_CLI_FORMATS_H

#include "mesh.h"

#include <string>

namespace nodara_cli {

struct format {
    const char* extension;  // lower case, with the dot
    const char* name;
    // Each returns true on success, or false with `why` filled.
    bool (*read)(const std::string& path, mesh& m, failure& why);                               // may be null
    bool (*write)(const std::string& path, const mesh& m, const write_options& o, failure& why);  // may be null
};

/// The format of a path by its extension (case-insensitive), or null.
const format* format_of(const std::string& path);

/// "stl (read, write), vtk (write)": for help texts and errors.
std::string format_list();

}  // namespace nodara_cli

#endif  // NODARA_TOOLS_CLI_FORMATS_H
