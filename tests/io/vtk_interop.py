"""Reads the VTK files written by nodara_io_interop_writer with VTK's own reader
(and meshio for a second opinion) and checks them against the writer's manifest:
point count and coordinates, cell count, cell types, point ids, and that every
tetrahedron of a mesh in the library's orientation has a positive volume in
VTK's.

Usage: vtk_interop.py WRITER OUTPUT_DIRECTORY
Runs with the system interpreter, where python3-vtk9 is installed.
"""
import os
import subprocess
import sys

try:
    from vtkmodules.vtkIOLegacy import vtkUnstructuredGridReader
except ImportError as error:  # pragma: no cover - reported as a failure
    print(f"VTK's Python modules cannot be imported: {error}")
    sys.exit(1)


def read_manifest(path):
    files, current = [], None
    with open(path) as f:
        for line in f:
            word, *rest = line.split()
            if word == "file":
                current = {"name": rest[0], "oriented": True, "points": [], "cells": []}
            elif word == "oriented":
                current["oriented"] = rest[0] == "1"
            elif word == "p":
                current["points"].append(tuple(float(x) for x in rest))
            elif word == "c":
                current["cells"].append((int(rest[0]), [int(x) for x in rest[1:]]))
            elif word == "end":
                files.append(current)
    return files


def tet_volume6(p):
    a, b, c, d = p
    u = [b[i] - a[i] for i in range(3)]
    v = [c[i] - a[i] for i in range(3)]
    w = [d[i] - a[i] for i in range(3)]
    return (u[0] * (v[1] * w[2] - v[2] * w[1]) - u[1] * (v[0] * w[2] - v[2] * w[0])
            + u[2] * (v[0] * w[1] - v[1] * w[0]))


def check_with_vtk(path, expected):
    errors = []
    reader = vtkUnstructuredGridReader()
    reader.SetFileName(path)
    reader.Update()
    if not reader.IsFileUnstructuredGrid():
        return [f"{path}: VTK does not see an unstructured grid"]
    grid = reader.GetOutput()
    points, cells = expected["points"], expected["cells"]
    if grid.GetNumberOfPoints() != len(points):
        errors.append(f"{path}: {grid.GetNumberOfPoints()} points, expected {len(points)}")
    else:
        for i, p in enumerate(points):
            q = grid.GetPoint(i)
            if any(abs(q[k] - p[k]) > 1e-6 * max(1.0, abs(p[k])) for k in range(3)):
                errors.append(f"{path}: point {i} is {q}, expected {p}")
                break
    if grid.GetNumberOfCells() != len(cells):
        errors.append(f"{path}: {grid.GetNumberOfCells()} cells, expected {len(cells)}")
        return errors
    for i, (vtk_type, ids) in enumerate(cells):
        got_type = grid.GetCellType(i)
        cell_ids = grid.GetCell(i).GetPointIds()
        got_ids = [cell_ids.GetId(k) for k in range(cell_ids.GetNumberOfIds())]
        if got_type != vtk_type or got_ids != ids:
            errors.append(f"{path}: cell {i} is type {got_type} {got_ids}, expected {vtk_type} {ids}")
            break
        if (vtk_type == 10 and expected["oriented"]
                and tet_volume6([grid.GetPoint(k) for k in got_ids]) <= 0):
            errors.append(f"{path}: tetrahedron {i} has a non-positive volume in VTK's orientation")
            break
    return errors


def check_with_meshio(path, expected):
    # meshio has no poly-vertex cell: files of higher-order elements are VTK's alone.
    if any(vtk_type == 2 for vtk_type, _ in expected["cells"]):
        return []
    try:
        import meshio
    except ImportError:
        return []
    mesh = meshio.read(path)
    errors = []
    if len(mesh.points) != len(expected["points"]):
        errors.append(f"{path}: meshio finds {len(mesh.points)} points")
    found = sum(len(block.data) for block in mesh.cells)
    if found != len(expected["cells"]):
        errors.append(f"{path}: meshio finds {found} cells, expected {len(expected['cells'])}")
    return errors


def main():
    writer, directory = sys.argv[1], sys.argv[2]
    os.makedirs(directory, exist_ok=True)
    subprocess.run([writer, directory], check=True)
    files = read_manifest(os.path.join(directory, "manifest.txt"))
    errors = []
    for expected in files:
        path = os.path.join(directory, expected["name"])
        errors += check_with_vtk(path, expected)
        errors += check_with_meshio(path, expected)
    for e in errors:
        print(e)
    print(f"{len(files)} files checked with VTK, {len(errors)} problems")
    return 1 if errors or len(files) < 10 else 0


if __name__ == "__main__":
    sys.exit(main())
