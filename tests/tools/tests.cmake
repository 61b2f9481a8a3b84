# The nodara program as a user runs it.
if(TARGET nodara_cli)
  set(cli_dir ${PROJECT_BINARY_DIR}/cli-test)
  file(MAKE_DIRECTORY ${cli_dir})
  set(sample ${PROJECT_SOURCE_DIR}/tools/sample/trefoil.stl)

  add_test(NAME cli.demo COMMAND nodara_cli demo --output ${cli_dir}/demo.vtk)
  set_tests_properties(cli.demo PROPERTIES LABELS cli
    PASS_REGULAR_EXPRESSION "5760 facets, 17280 vertices shared down to 2880 nodes.*connected pieces 1, free edges 0, non-manifold sides 0, edges 8640.*genus 1")

  add_test(NAME cli.info COMMAND nodara_cli info ${sample})
  set_tests_properties(cli.info PROPERTIES LABELS cli
    PASS_REGULAR_EXPRESSION "nodes: +2880 \\(3-D\\).*elements: +5760 triangles.*duplicate nodes: +0.*free edges: +0 \\(closed surface\\)")

  add_test(NAME cli.convert COMMAND nodara_cli convert ${sample} ${cli_dir}/trefoil_ascii.stl --ascii)
  set_tests_properties(cli.convert PROPERTIES LABELS cli PASS_REGULAR_EXPRESSION "2880 nodes, 5760 elements")
  add_test(NAME cli.convert_back COMMAND nodara_cli info ${cli_dir}/trefoil_ascii.stl)
  set_tests_properties(cli.convert_back PROPERTIES LABELS cli DEPENDS cli.convert
    PASS_REGULAR_EXPRESSION "nodes: +2880 .*5760 triangles")

  add_test(NAME cli.missing_file COMMAND nodara_cli info ${cli_dir}/no-such-file.stl)
  set_tests_properties(cli.missing_file PROPERTIES LABELS cli
    PASS_REGULAR_EXPRESSION "nodara: .*no-such-file.stl: cannot be opened \\(status -1\\)")
  add_test(NAME cli.unknown_format COMMAND nodara_cli convert ${sample} ${cli_dir}/out.xyz)
  set_tests_properties(cli.unknown_format PROPERTIES LABELS cli
    PASS_REGULAR_EXPRESSION "cannot write this kind of file; writable: stl \\(read, write\\), vtk \\(write\\)")
  add_test(NAME cli.help COMMAND nodara_cli convert --help)
  set_tests_properties(cli.help PROPERTIES LABELS cli PASS_REGULAR_EXPRESSION "IN.*OUT.*--ascii")
endif()
