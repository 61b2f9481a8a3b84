// nodara: look at, convert and check mesh files from the command line.
//
//   nodara info FILE          what the mesh holds
//   nodara convert IN OUT     from one format to another, chosen by extension
//   nodara demo               the typical job on the bundled sample mesh
#include "formats.h"
#include "report.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

namespace nodara_cli {
extern const unsigned char sample_mesh[];
extern const std::size_t sample_mesh_size;
}  // namespace nodara_cli

using namespace nodara_cli;
using namespace zq5;
using namespace zq5::nodara;

namespace {

int error(const std::string& file, const std::string& what, int status) {
    if (status != 0)
        std::fprintf(stderr, "nodara: %s: %s (status %d)\n", file.c_str(), what.c_str(), status);
    else
        std::fprintf(stderr, "nodara: %s: %s\n", file.c_str(), what.c_str());
    return 1;
}

bool read_mesh(const std::string& path, mesh& m, int& exit_code) {
    const format* f = format_of(path);
    if (!f || !f->read) {
        exit_code = error(path, "cannot read this kind of file; readable: " + format_list(), 0);
        return false;
    }
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        exit_code = error(path, "is a directory", 0);
        return false;
    }
    failure why;
    if (!f->read(path, m, why)) {
        exit_code = error(path, why.message, why.status);
        return false;
    }
    return true;
}

bool write_mesh(const std::string& path, const mesh& m, const write_options& o, int& exit_code) {
    const format* f = format_of(path);
    if (!f || !f->write) {
        exit_code = error(path, "cannot write this kind of file; writable: " + format_list(), 0);
        return false;
    }
    failure why;
    if (!f->write(path, m, o, why)) {
        exit_code = error(path, why.message, why.status);
        return false;
    }
    return true;
}

int run_info(const std::string& path) {
    mesh m;
    int code = 0;
    if (!read_mesh(path, m, code)) return code;
    summary s;
    failure why;
    if (!summarize(m, s, why)) return error(path, why.message, why.status);
    std::printf("file:             %s (%s)\n", path.c_str(), format_of(path)->name);
    print_summary(stdout, s);
    return 0;
}

int run_convert(const std::string& in, const std::string& out, const write_options& o) {
    mesh m;
    int code = 0;
    if (!read_mesh(in, m, code)) return code;
    if (!write_mesh(out, m, o, code)) return code;
    std::size_t elements = 0;
    for (const block& b : m.blocks) elements += b.connect.cols();
    std::printf("%s -> %s: %zu nodes, %zu elements\n", in.c_str(), out.c_str(), m.pos.cols(), elements);
    return 0;
}

double ms_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

int run_demo(const std::string& output) {
    // The sample is compiled into the program; the reader takes a file.
    std::error_code ec;
    const std::filesystem::path sample =
        std::filesystem::temp_directory_path(ec) / ("nodara-demo-" + std::to_string(::getpid()) + ".stl");
    {
        std::ofstream f(sample, std::ios::binary);
        f.write(reinterpret_cast<const char*>(sample_mesh), static_cast<std::streamsize>(sample_mesh_size));
        if (!f) return error(sample.string(), "cannot write the sample mesh to a temporary file", 0);
    }
    std::printf("nodara %s demo: a closed tube around a trefoil knot (%zu bytes of binary STL)\n\n", version(),
                sample_mesh_size);

    auto t0 = std::chrono::steady_clock::now();
    mesh m;
    failure why;
    const format* stl = format_of(sample.string());
    const bool read = stl->read(sample.string(), m, why);
    std::filesystem::remove(sample, ec);
    if (!read) return error("sample mesh", why.message, why.status);
    const std::size_t facets = m.blocks[0].connect.cols();
    std::printf("read and merge    %8.1f ms  %zu facets, %zu vertices shared down to %zu nodes\n", ms_since(t0),
                facets, 3 * facets, m.pos.cols());

    t0 = std::chrono::steady_clock::now();
    summary s;
    if (!summarize(m, s, why)) return error("sample mesh", why.message, why.status);
    const block_summary& b = s.blocks[0];
    std::printf("topology          %8.1f ms  connected pieces %zu, free edges %zu, non-manifold sides %zu, edges %zu\n",
                ms_since(t0), b.pieces, b.skin, b.nonmanifold, b.edges);

    t0 = std::chrono::steady_clock::now();
    int code = 0;
    if (!write_mesh(output, m, write_options(), code)) return code;
    std::printf("write             %8.1f ms  %s\n\n", ms_since(t0), output.c_str());

    print_summary(stdout, s);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"nodara: inspect, convert and check unstructured mesh files.\nFormats: " + format_list()};
    app.set_version_flag("--version", std::string("nodara ") + version());
    app.require_subcommand(1);

    std::string info_file;
    CLI::App* info = app.add_subcommand("info", "Tell what a mesh file holds: nodes, elements by type, bounding box, "
                                                "connected pieces, skin, non-manifold sides, duplicate nodes");
    info->add_option("FILE", info_file, "mesh file")->required();

    std::string in, out;
    write_options options;
    CLI::App* convert = app.add_subcommand("convert", "Convert a mesh file; formats are chosen by extension (" +
                                                          format_list() + ")");
    convert->add_option("IN", in, "file to read")->required();
    convert->add_option("OUT", out, "file to write")->required();
    convert->add_flag("--ascii", options.ascii, "write STL as text instead of binary");

    std::string demo_output = "demo.vtk";
    CLI::App* demo = app.add_subcommand("demo", "Run the typical job on the bundled sample mesh: read and merge, "
                                                "neighbours, skin, pieces, edges, then write a VTK file");
    demo->add_option("-o,--output", demo_output, "file the demo writes")->capture_default_str();

    CLI11_PARSE(app, argc, argv);

    if (info->parsed()) return run_info(info_file);
    if (convert->parsed()) return run_convert(in, out, options);
    if (demo->parsed()) return run_demo(demo_output);
    return 1;
}
