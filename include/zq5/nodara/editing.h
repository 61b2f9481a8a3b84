// Mesh editing: the node detector, node merging, geometric transforms and copies,
// cleaning and clipping.
//
// `node_detector` is a k-d tree over chosen nodes of a coordinate matrix (one
// column per node, 2 or 3 rows) answering nearest-node and box queries.  `merge`
// maps nodes lying within a distance tolerance of an earlier node onto it and
// renumbers connectivities or snaps coordinates.  `translate`, `rotate` and
// `zoom` move node coordinates in place; `copy_mesh` and `copy_sym_mesh` append
// copied (or mirrored) nodes and write a renumbered connectivity.
// `remove_degenerated` drops elements that use a node twice, `simplify` drops
// unused nodes, `clip` keeps the elements strictly on one side of a plane.
//
// Results are deterministic: the k-d tree is built in a fixed pseudo-random order
// (MT19937 seeded with 1), so the same input always gives the same answers, ties
// included.  No function here throws, logs, keeps state between calls or starts a
// thread; allocation failure is reported as -199.  Statuses are plain ints: 0 or a
// count on success, negative codes listed per function in the order its checks run
// (the first failing check wins).
#ifndef ZQ5_NODARA_EDITING_H
#define ZQ5_NODARA_EDITING_H

#include <zq5/arrays.h>
#include <zq5/export.h>
#include <zq5/nodara/core.h>

namespace zq5 {
namespace nodara {

// ---------------------------------------------------------------------------
// Node detector.

/// A k-d tree over a set of nodes of a coordinate matrix (2 or 3 rows), built in
/// a shuffled order (MT19937 seeded with 1) so that it stays balanced on average.
///
/// Lifetime rule: the detector keeps a pointer to the caller's coordinate matrix
/// and never copies it.  That matrix must outlive the detector (or the next
/// `clear` / `reinit`) and must not change while the detector is used.
///
/// Levels split on x, y (, z), x, ... from the root.  Nodes are identified by
/// index only: two different nodes with equal coordinates are both kept.  A
/// two-dimensional query on a three-dimensional tree is taken at z = 0 (a 2-D box
/// spans z from 0 to 0); a three-dimensional query on a two-dimensional tree
/// ignores z.  Ties in `find_closest` go to the first node met in the documented
/// search order (the greedy descent path first, then the bounded search: slot,
/// upper subtree, lower subtree), so they are fixed for a given input list.
/// The answers are exactly those of that documented search; the detector also
/// keeps a second, bucketed index over the same nodes to find them faster
/// (memory: about 80 bytes per node in 3-D, 60 in 2-D).
/// Allocation: `reinit` reports failure (-199); `insert` leaves out the nodes it
/// cannot find room for; `find_in_box` skips appends it cannot make; the queries
/// allocate only for unusually deep trees (many coincident nodes) and answer
/// NULL_INDEX when that fails.
class NODARA_API node_detector {
public:
    /// An empty detector: every query answers NULL_INDEX or appends nothing.
    node_detector() noexcept;
    /// reinit(pos); the status is discarded.
    explicit node_detector(const dense2D<double>& pos) noexcept;
    /// reinit(pos, nodes); the status is discarded.
    node_detector(const dense2D<double>& pos, const dense1D<unsigned>& nodes) noexcept;
    /// reinit(pos, connectM); the status is discarded.
    node_detector(const dense2D<double>& pos, const dense2D<unsigned>& connectM) noexcept;
    /// reinit(pos, first, last); the status is discarded.
    node_detector(const dense2D<double>& pos, const dense2D<unsigned>* first,
                  const dense2D<unsigned>* last) noexcept;
    /// A deep copy of `other` (same coordinate matrix, same tree).
    node_detector(const node_detector& other) noexcept;
    ~node_detector();
    /// Deep copy: does nothing when both already share a tree; otherwise the tree
    /// is replaced by a copy of other's (an empty `other` leaves this empty).  When
    /// the copy cannot be allocated this detector is left empty.
    node_detector& operator=(const node_detector& other) noexcept;

    /// Destroys the tree; the detector becomes empty.
    void clear() noexcept;

    /// Rebuilds over all nodes 0 .. pos.cols-1.
    /// Status: 0; -1 pos.rows is neither 2 nor 3 (the detector is left empty);
    /// -199 storage for the tree cannot be had (the detector is left empty).
    int reinit(const dense2D<double>& pos) noexcept;
    /// Rebuilds over the listed nodes (NULL_INDEX entries skipped, repeats once).
    /// Status: 0; -1 pos.rows is neither 2 nor 3; -2 an entry is neither NULL_INDEX
    /// nor below pos.cols (both leave the detector unchanged); -199 as above.
    int reinit(const dense2D<double>& pos, const dense1D<unsigned>& nodes) noexcept;
    /// Rebuilds over the nodes of a connectivity (each once, NULL_INDEX dropped).
    /// Statuses of the list form.
    int reinit(const dense2D<double>& pos, const dense2D<unsigned>& connectM) noexcept;
    /// Rebuilds over the nodes of the connectivities of [first, last).
    /// Status: 0; -3 first > last (detector unchanged); then the list form's.
    int reinit(const dense2D<double>& pos, const dense2D<unsigned>* first,
               const dense2D<unsigned>* last) noexcept;

    /// Adds the listed nodes (entries not below pos.cols, NULL_INDEX among them,
    /// are skipped; a node already in the tree is not added again).  Returns the
    /// number of nodes added; 0 on an empty detector.
    unsigned insert(const dense1D<unsigned>& nodes) noexcept;
    /// Adds the nodes of a connectivity (in order of first appearance).
    unsigned insert(const dense2D<unsigned>& connectM) noexcept;

    /// The node nearest to P (Euclidean), NULL_INDEX when the detector is empty.
    unsigned find_closest(const vector_fixed<double, 2>& P) const noexcept;
    unsigned find_closest(const vector_fixed<double, 3>& P) const noexcept;
    /// The node nearest to node `node`, other than `node` itself (which need not be
    /// in the detector).  NULL_INDEX when the detector is empty, when node is not
    /// below pos.cols, or when no other node is in the detector.
    unsigned find_closest(unsigned node) const noexcept;

    /// Appends to `nodes` (not cleared) every node with Pmin[k] <= x[k] <= Pmax[k]
    /// on every axis, in the tree's walk order.  An append that cannot grow `nodes`
    /// is skipped.
    void find_in_box(const vector_fixed<double, 2>& Pmin, const vector_fixed<double, 2>& Pmax,
                     dense1D<unsigned>& nodes) const noexcept;
    void find_in_box(const vector_fixed<double, 3>& Pmin, const vector_fixed<double, 3>& Pmax,
                     dense1D<unsigned>& nodes) const noexcept;

    /// Number of slots of the tree: the nodes held plus a slot freed by a repeated
    /// insertion, which the next new node reuses.  0 when empty.
    unsigned size() const noexcept;

private:
    template <unsigned N>
    struct tree;
    tree<2>* tree2_ = nullptr;
    tree<3>* tree3_ = nullptr;
};

// ---------------------------------------------------------------------------
// Node merging.
//
// The engine (form 1): over the target list L2 (nodes2 without repeats, in
// order; a node's rank is its position there), each node v of L1 (nodes1 without
// repeats) is merged onto the nearest survivor u of L2 with rank[u] < rank[v]
// (any target when v is not in L2) within Euclidean distance tol (bounds
// included; of equal distances the candidate met last in the tree's box walk
// wins).  Candidates are collected in passes; each pass applies its proposals in
// order of distance, then v, then u, skipping those whose target has been merged
// away meanwhile, and compresses chains so that every merged node points directly
// at a survivor.  A node merged away is no longer a target, so merging is not
// transitive: with nodes at x = 0, 0.6, 1.2 and tol 1, only the second merges.
//
// The result is the merge count accumulated over the passes: a pass that applies
// one proposal adds 1; a pass that applies two or more adds the number of L1
// nodes that are mapped elsewhere after its compression (this counts nodes merged
// in earlier passes again, so the result can exceed the number of merged nodes).
// 0 means nothing was merged.
//
// new_ids (overwritten): one entry per node of pos; new_ids[i] = i for a survivor
// and for a node not taking part, otherwise the survivor node i was merged onto.
// It is left empty when a check fails and when there is nothing to merge (empty
// pos, empty lists, empty range, mode 0 over connectivities without nodes); modes
// 1 and 2 over connectivities without nodes leave the identity.
//
// Modes of the connectivity forms:
//   0: any two nodes of the connectivities within tol merge (the engine above,
//      L1 = L2 = the nodes in order of first appearance);
//   1: only nodes of one and the same element merge (short element edges
//      collapse), in one pass.  Proposals (d2, a, b) are made for each entry a
//      and each other node b of the same column within tol, sorted stably by
//      distance then a; a proposal applies when neither a nor b has been mapped in
//      this pass, mapping b onto a, so the node met first in the element scan
//      survives.  The matrices are renumbered after the pass;
//   2: as 1, repeated until a pass merges nothing.
// Assumed, not checked: the connectivity entries are NULL_INDEX or below pos.cols
// (other entries are ignored by the search and left as they are).  Coordinates
// that are NaN never lie within any tolerance.

/// Form 1: merges nodes of nodes1 onto nodes of nodes2.
///   pos      N x n coordinates (read), N = 2 or 3;
///   nodes1   the nodes that may be merged away (read; repeats and NULL_INDEX ignored);
///   nodes2   the target list, in rank order (read);
///   new_ids  overwritten, n entries (see above);
///   tol      distance tolerance, absolute units.
/// Status: the merge count (>= 0); 0 for an empty pos; -1 pos.rows not 2 or 3;
/// -2 nodes1 holds an entry neither NULL_INDEX nor below n; -3 the same for
/// nodes2; -4 tol < 0 or NaN; -199 allocation failure (new_ids left empty).
NODARA_API int merge(const dense2D<double>& pos, const dense1D<unsigned>& nodes1,
                     const dense1D<unsigned>& nodes2, dense1D<unsigned>& new_ids, double tol) noexcept;
/// Form 2: form 1 with nodes1 = nodes2 = nodes.
/// Status: the merge count; 0 empty pos; -1 pos.rows; -2 nodes bad; -3 tol < 0 or
/// NaN; -199.
NODARA_API int merge(const dense2D<double>& pos, const dense1D<unsigned>& nodes, dense1D<unsigned>& new_ids,
                     double tol) noexcept;

/// Form 3: merges the nodes of the connectivities of [first, last) and renumbers
/// those matrices in place (they are views: the shared storage is written).
///   pos        N x n coordinates (read);
///   first,last a half-open range of connectivities (entries renumbered);
///   new_ids    overwritten, n entries (see above);
///   tol        distance tolerance;  mode  0, 1 or 2 (see above).
/// Status: the merge count; 0 for an empty pos or an empty range; -1 pos.rows not 2
/// or 3; -3 last < first; -5 tol < 0 or NaN; -6 mode > 2; -199 allocation failure
/// (new_ids left empty; the matrices may already be renumbered by an earlier pass
/// of mode 2, never half-renumbered within one pass).
NODARA_API int merge(const dense2D<double>& pos, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
                     dense1D<unsigned>& new_ids, double tol, unsigned mode) noexcept;
/// Form 4: form 3 without new_ids.  Statuses of form 3.
NODARA_API int merge(const dense2D<double>& pos, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
                     double tol, unsigned mode) noexcept;
/// Form 5: form 3 on the one matrix connectM.
/// Status: the merge count; 0 empty pos or empty matrix; -1 pos.rows; -4 tol < 0
/// or NaN; -5 mode > 2; -199.
NODARA_API int merge(const dense2D<double>& pos, dense2D<unsigned>& connectM, dense1D<unsigned>& new_ids,
                     double tol, unsigned mode) noexcept;
/// Form 6: form 5 without new_ids.  Statuses of form 5.
NODARA_API int merge(const dense2D<double>& pos, dense2D<unsigned>& connectM, double tol, unsigned mode) noexcept;
/// Form 7: form 3 over the range {connectM1, connectM2}; both are renumbered.
/// Statuses of form 5.
NODARA_API int merge(const dense2D<double>& pos, dense2D<unsigned>& connectM1, dense2D<unsigned>& connectM2,
                     dense1D<unsigned>& new_ids, double tol, unsigned mode) noexcept;
/// Form 8: form 7 without new_ids.  Statuses of form 5.
NODARA_API int merge(const dense2D<double>& pos, dense2D<unsigned>& connectM1, dense2D<unsigned>& connectM2,
                     double tol, unsigned mode) noexcept;

/// Form 9 (snap): the engine over all nodes 0 .. n-1 in order (a node merges onto
/// a lower-numbered survivor); then every merged node i receives the coordinates
/// of new_ids[i].  pos keeps its shape (nodes are not removed).
///   pos      N x n coordinates (read, merged columns overwritten);
///   new_ids  overwritten, n entries.
/// Status: the merge count; 0 empty pos; -1 pos.rows not 2 or 3; -3 tol < 0 or
/// NaN; -199 (pos unchanged).
NODARA_API int merge(dense2D<double>& pos, dense1D<unsigned>& new_ids, double tol) noexcept;
/// Form 10: form 9 without new_ids.  Statuses of form 9.
NODARA_API int merge(dense2D<double>& pos, double tol) noexcept;

// ---------------------------------------------------------------------------
// Geometric transforms.  Each comes for all nodes, for a node list (each entry
// below pos.cols is transformed once per occurrence, others such as NULL_INDEX are
// skipped) and for the nodes of a connectivity (each node once).
//   pos  coordinates, one column per node (read and overwritten).  When it has
//        fewer rows than the transform's dimension it is first padded with rows of
//        0.0 (a 2-D mesh rotated in 3-D gains a z row); extra rows are left alone.
// Result: the number of node positions changed.  0 without touching pos when
// rows x cols of pos is 0, when the transform is the identity (zero T, zero
// angle, zero R, factor 1, tested exactly) or when the list is empty.
// -199 when pos cannot be padded or the connectivity's node list cannot be made
// (pos unchanged).

/// x += T.
NODARA_API int translate(dense2D<double>& pos, const vector_fixed<double, 2>& T) noexcept;
NODARA_API int translate(dense2D<double>& pos, const vector_fixed<double, 2>& T,
                         const dense1D<unsigned>& nodes) noexcept;
NODARA_API int translate(dense2D<double>& pos, const vector_fixed<double, 2>& T,
                         const dense2D<unsigned>& connectM) noexcept;
NODARA_API int translate(dense2D<double>& pos, const vector_fixed<double, 3>& T) noexcept;
NODARA_API int translate(dense2D<double>& pos, const vector_fixed<double, 3>& T,
                         const dense1D<unsigned>& nodes) noexcept;
NODARA_API int translate(dense2D<double>& pos, const vector_fixed<double, 3>& T,
                         const dense2D<unsigned>& connectM) noexcept;

/// 2-D: counter-clockwise rotation by `angle` radians about `center` (in the
/// x, y plane).  3-D: rotation by |R| radians about the axis R / |R| through
/// `center`, right-handed (Rodrigues' formula; for |R| <= 0.1 its coefficients are
/// taken from their Taylor series).
NODARA_API int rotate(dense2D<double>& pos, const vector_fixed<double, 2>& center, double angle) noexcept;
NODARA_API int rotate(dense2D<double>& pos, const vector_fixed<double, 2>& center, double angle,
                      const dense1D<unsigned>& nodes) noexcept;
NODARA_API int rotate(dense2D<double>& pos, const vector_fixed<double, 2>& center, double angle,
                      const dense2D<unsigned>& connectM) noexcept;
NODARA_API int rotate(dense2D<double>& pos, const vector_fixed<double, 3>& center,
                      const vector_fixed<double, 3>& R) noexcept;
NODARA_API int rotate(dense2D<double>& pos, const vector_fixed<double, 3>& center, const vector_fixed<double, 3>& R,
                      const dense1D<unsigned>& nodes) noexcept;
NODARA_API int rotate(dense2D<double>& pos, const vector_fixed<double, 3>& center, const vector_fixed<double, 3>& R,
                      const dense2D<unsigned>& connectM) noexcept;

/// x += (x - center) * (factor - 1): scaling about `center` (factor 0 collapses
/// the nodes onto center).
NODARA_API int zoom(dense2D<double>& pos, const vector_fixed<double, 2>& center, double factor) noexcept;
NODARA_API int zoom(dense2D<double>& pos, const vector_fixed<double, 2>& center, double factor,
                    const dense1D<unsigned>& nodes) noexcept;
NODARA_API int zoom(dense2D<double>& pos, const vector_fixed<double, 2>& center, double factor,
                    const dense2D<unsigned>& connectM) noexcept;
NODARA_API int zoom(dense2D<double>& pos, const vector_fixed<double, 3>& center, double factor) noexcept;
NODARA_API int zoom(dense2D<double>& pos, const vector_fixed<double, 3>& center, double factor,
                    const dense1D<unsigned>& nodes) noexcept;
NODARA_API int zoom(dense2D<double>& pos, const vector_fixed<double, 3>& center, double factor,
                    const dense2D<unsigned>& connectM) noexcept;

// ---------------------------------------------------------------------------
// Copies.

/// Duplicates a mesh: the nodes of connectM_in (each once, in order of first
/// appearance) are appended to pos, and connectM_out receives a copy of
/// connectM_in referring to the appended nodes (NULL_INDEX entries stay).
///   pos           coordinates (read; columns appended: the copy of the k-th node
///                 becomes node old_cols + k);
///   connectM_out  overwritten with connectM_in's shape;
///   connectM_in   read (may be the same object as connectM_out).
/// Status: 0; -3 connectM_in holds an entry neither NULL_INDEX nor below pos.cols
/// (nothing changed); -199 allocation failure (pos and connectM_out may have been
/// changed).
NODARA_API int copy_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out,
                         const dense2D<unsigned>& connectM_in) noexcept;

/// Mirror copy: copy_mesh, then every appended node p is reflected through the
/// line (2-D) or plane (3-D) through P with the given normal:
/// p' = p - 2 ((p - P) . normal / |normal|^2) normal.  Node order inside each
/// element is kept, so mirrored elements have the opposite orientation.  pos is
/// padded to N rows with zeros when it has fewer.
/// Status: 0 (also when rows x cols of pos is 0, nothing done); -4 normal is zero;
/// -5 connectM_in holds an entry neither NULL_INDEX nor below pos.cols; -199.
NODARA_API int copy_sym_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, 2>& P,
                             const vector_fixed<double, 2>& normal, const dense2D<unsigned>& connectM_in) noexcept;
NODARA_API int copy_sym_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, 3>& P,
                             const vector_fixed<double, 3>& normal, const dense2D<unsigned>& connectM_in) noexcept;

/// Repeated copies: for k = 1 .. count, a fresh copy of connectM_in's nodes is
/// appended to pos, rotated about `center` by k x angle (2-D) or by the rotation
/// vector k x R (3-D), then translated by k x T; the copy's elements are appended
/// to connectM_out (which is not cleared; it must be empty or have connectM_in's
/// rows).  Copy k is the source turned k times and shifted k times.
/// Status: 0 (also when pos is empty or count is 0); -7 connectM_in holds an entry
/// neither NULL_INDEX nor below pos.cols, or connectM_out has another row count
/// (nothing changed); -199 (the copies made so far stay).
NODARA_API int copy_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, 2>& T,
                         const vector_fixed<double, 2>& center, double angle, unsigned count,
                         const dense2D<unsigned>& connectM_in) noexcept;
NODARA_API int copy_mesh(dense2D<double>& pos, dense2D<unsigned>& connectM_out, const vector_fixed<double, 3>& T,
                         const vector_fixed<double, 3>& center, const vector_fixed<double, 3>& R, unsigned count,
                         const dense2D<unsigned>& connectM_in) noexcept;

// ---------------------------------------------------------------------------
// Cleaning and clipping.

/// Removes the elements (columns) that use a node twice, keeping the order of the
/// others.  A repeated NULL_INDEX (the filler rows of the mixed kinds) makes an
/// element degenerate only when null_repeats is true.
///   connectM      read and compacted (resized to rows x kept);
///   new_ids       overwritten, one entry per former column: its new position, or
///                 NULL_INDEX for a removed element.
/// Status: the number of elements removed; -199 allocation failure (connectM
/// unchanged).
NODARA_API int remove_degenerated(dense2D<unsigned>& connectM, bool null_repeats) noexcept;
NODARA_API int remove_degenerated(dense2D<unsigned>& connectM, dense1D<unsigned>& new_ids,
                                  bool null_repeats) noexcept;

/// Removes the nodes that no element of the connectivities uses, except the first
/// n_hard nodes, which are always kept; kept nodes keep their order, and the
/// connectivities are renumbered (in place: the matrices are views on shared
/// storage).
///   pos         coordinates (columns moved forward; resized to rows x kept);
///   first,last  the half-open range of connectivities (read, then renumbered);
///   new_ids     overwritten: for each former node its new index, NULL_INDEX for a
///               removed one; left empty when nothing is to be done (empty range,
///               empty pos, or n_hard >= pos.cols);
///   n_hard      the number of leading nodes kept whether used or not.
/// Status: the number of nodes removed; -3 first > last; -2 a matrix holds an entry
/// neither NULL_INDEX nor below pos.cols (nothing changed); -199 allocation failure
/// (nothing changed).
NODARA_API int simplify(dense2D<double>& pos, const dense2D<unsigned>* first, const dense2D<unsigned>* last,
                        dense1D<unsigned>& new_ids, unsigned n_hard) noexcept;
/// The range form on one matrix.
NODARA_API int simplify(dense2D<double>& pos, dense2D<unsigned>& connectM, dense1D<unsigned>& new_ids,
                        unsigned n_hard) noexcept;
/// The range form on one matrix, without new_ids.
NODARA_API int simplify(dense2D<double>& pos, dense2D<unsigned>& connectM, unsigned n_hard) noexcept;
/// The range form on the two matrices {connectM1, connectM2}, without new_ids.
NODARA_API int simplify(dense2D<double>& pos, dense2D<unsigned>& connectM1, dense2D<unsigned>& connectM2,
                        unsigned n_hard) noexcept;

/// Appends to connectM_out the elements of connectM lying strictly on the positive
/// side of the plane through P with the given normal: every node before the first
/// NULL_INDEX of the column has (x - P) . normal > 0, over the first min(pos.rows, 3)
/// coordinates (a node on the plane is not on the positive side).  Kept elements
/// keep their order.
///   pos            coordinates (read);  connectM  read;
///   connectM_out   appended to (not cleared); may be connectM itself.
/// Status, in order: 0 for an empty connectM; -2 connectM holds an entry neither
/// NULL_INDEX nor below pos.cols; -4 |normal| < 1e-12; -5 connectM_out is neither
/// empty nor of connectM's row count; 0 success; -199 (connectM_out unchanged).
NODARA_API int clip(const dense2D<double>& pos, const dense2D<unsigned>& connectM, const vector_fixed<double, 3>& P,
                    const vector_fixed<double, 3>& normal, dense2D<unsigned>& connectM_out) noexcept;

}  // namespace nodara
}  // namespace zq5

#endif  // ZQ5_NODARA_EDITING_H
