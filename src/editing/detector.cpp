// node_detector: the public face of the k-d tree.
#include "editing/kd_tree.h"
#include "editing/lists.h"

#include <zq5/nodara/editing.h>

#include <new>

namespace zq5 {
namespace nodara {

template <unsigned N>
struct node_detector::tree : detail::kd_tree<N> {
    explicit tree(const dense2D<double>* pos) : detail::kd_tree<N>(pos) {}
};

namespace {

template <class T>
T* new_tree(const dense2D<double>* pos) noexcept {
    void* mem = __vector_num_alloc(sizeof(T));
    if (!mem) return nullptr;
    return new (mem) T(pos);
}

template <class T>
void delete_tree(T*& t) noexcept {
    if (t) {
        t->~T();
        __vector_num_free(t);
        t = nullptr;
    }
}

}  // namespace

node_detector::node_detector() noexcept = default;

node_detector::node_detector(const dense2D<double>& pos) noexcept { reinit(pos); }

node_detector::node_detector(const dense2D<double>& pos, const dense1D<unsigned>& nodes) noexcept {
    reinit(pos, nodes);
}

node_detector::node_detector(const dense2D<double>& pos, const dense2D<unsigned>& connectM) noexcept {
    reinit(pos, connectM);
}

node_detector::node_detector(const dense2D<double>& pos, const dense2D<unsigned>* first,
                             const dense2D<unsigned>* last) noexcept {
    reinit(pos, first, last);
}

node_detector::node_detector(const node_detector& other) noexcept { *this = other; }

node_detector::~node_detector() { clear(); }

node_detector& node_detector::operator=(const node_detector& other) noexcept {
    if (this == &other) return *this;
    if ((tree2_ && tree2_ == other.tree2_) || (tree3_ && tree3_ == other.tree3_)) return *this;
    clear();
    try {
        if (other.tree2_) {
            tree2_ = new_tree<tree<2>>(other.tree2_->coords());
            if (tree2_) tree2_->copy_from(*other.tree2_);
        } else if (other.tree3_) {
            tree3_ = new_tree<tree<3>>(other.tree3_->coords());
            if (tree3_) tree3_->copy_from(*other.tree3_);
        }
    } catch (const std::bad_alloc&) {
        clear();
    }
    return *this;
}

void node_detector::clear() noexcept {
    delete_tree(tree2_);
    delete_tree(tree3_);
}

namespace {

// Makes the tree for pos (2 or 3 rows) with room for `room` slots and inserts the
// list.  -199 when the tree cannot be made.
template <class Tree>
int build(Tree*& t, const dense2D<double>& pos, std::size_t room, const unsigned* list, std::size_t n) noexcept {
    t = new_tree<Tree>(&pos);
    if (!t) return -199;
    t->enable_fast_nearest();
    try {
        t->reserve(room);
    } catch (const std::bad_alloc&) {
        delete_tree(t);
        return -199;
    }
    try {
        t->insert(list, n, true);
    } catch (const std::bad_alloc&) {
        delete_tree(t);
        return -199;
    }
    return 0;
}

}  // namespace

int node_detector::reinit(const dense2D<double>& pos) noexcept {
    clear();
    if (pos.rows() != 2 && pos.rows() != 3) return -1;
    try {
        detail::vec<unsigned> all(pos.cols());
        for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<unsigned>(i);
        if (pos.rows() == 2) return build(tree2_, pos, all.size(), all.data(), all.size());
        return build(tree3_, pos, all.size(), all.data(), all.size());
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

int node_detector::reinit(const dense2D<double>& pos, const dense1D<unsigned>& nodes) noexcept {
    if (pos.rows() != 2 && pos.rows() != 3) return -1;
    if (!check_IDs(nodes, static_cast<unsigned>(pos.cols()))) return -2;
    clear();
    if (pos.rows() == 2) return build(tree2_, pos, nodes.size(), nodes.data(), nodes.size());
    return build(tree3_, pos, nodes.size(), nodes.data(), nodes.size());
}

int node_detector::reinit(const dense2D<double>& pos, const dense2D<unsigned>& connectM) noexcept {
    return reinit(pos, &connectM, &connectM + 1);
}

int node_detector::reinit(const dense2D<double>& pos, const dense2D<unsigned>* first,
                          const dense2D<unsigned>* last) noexcept {
    if (first > last) return -3;
    if (pos.rows() != 2 && pos.rows() != 3) return -1;
    try {
        detail::vec<unsigned> list;
        detail::unique_nodes(first, last, NULL_INDEX, list);
        // The list holds no NULL_INDEX; its entries must be below pos.cols.
        for (unsigned v : list)
            if (v >= pos.cols()) return -2;
        clear();
        if (pos.rows() == 2) return build(tree2_, pos, list.size(), list.data(), list.size());
        return build(tree3_, pos, list.size(), list.data(), list.size());
    } catch (const std::bad_alloc&) {
        return -199;
    }
}

unsigned node_detector::insert(const dense1D<unsigned>& nodes) noexcept {
    try {
        if (tree2_) return tree2_->insert(nodes.data(), nodes.size());
        if (tree3_) return tree3_->insert(nodes.data(), nodes.size());
    } catch (const std::bad_alloc&) {
    }
    return 0;
}

unsigned node_detector::insert(const dense2D<unsigned>& connectM) noexcept {
    if (!tree2_ && !tree3_) return 0;
    try {
        detail::vec<unsigned> list;
        detail::unique_nodes(&connectM, &connectM + 1, NULL_INDEX, list);
        if (tree2_) return tree2_->insert(list.data(), list.size());
        return tree3_->insert(list.data(), list.size());
    } catch (const std::bad_alloc&) {
    }
    return 0;
}

unsigned node_detector::find_closest(const vector_fixed<double, 2>& P) const noexcept {
    try {
        if (tree2_) return tree2_->closest(P.data(), NULL_INDEX);
        if (tree3_) {
            const double Q[3] = {P[0], P[1], 0.0};
            return tree3_->closest(Q, NULL_INDEX);
        }
    } catch (const std::bad_alloc&) {
    }
    return NULL_INDEX;
}

unsigned node_detector::find_closest(const vector_fixed<double, 3>& P) const noexcept {
    try {
        if (tree2_) return tree2_->closest(P.data(), NULL_INDEX);
        if (tree3_) return tree3_->closest(P.data(), NULL_INDEX);
    } catch (const std::bad_alloc&) {
    }
    return NULL_INDEX;
}

unsigned node_detector::find_closest(unsigned node) const noexcept {
    try {
        if (tree2_) {
            if (node >= tree2_->coords()->cols()) return NULL_INDEX;
            double P[2];
            tree2_->coords_of(node, P);
            return tree2_->closest(P, node);
        }
        if (tree3_) {
            if (node >= tree3_->coords()->cols()) return NULL_INDEX;
            double P[3];
            tree3_->coords_of(node, P);
            return tree3_->closest(P, node);
        }
    } catch (const std::bad_alloc&) {
    }
    return NULL_INDEX;
}

void node_detector::find_in_box(const vector_fixed<double, 2>& Pmin, const vector_fixed<double, 2>& Pmax,
                                dense1D<unsigned>& nodes) const noexcept {
    try {
        auto append = [&nodes](unsigned v, unsigned) { nodes.push_back(v); };
        if (tree2_) tree2_->box(Pmin.data(), Pmax.data(), append);
        if (tree3_) {
            const double lo[3] = {Pmin[0], Pmin[1], 0.0};
            const double hi[3] = {Pmax[0], Pmax[1], 0.0};
            tree3_->box(lo, hi, append);
        }
    } catch (const std::bad_alloc&) {
    }
}

void node_detector::find_in_box(const vector_fixed<double, 3>& Pmin, const vector_fixed<double, 3>& Pmax,
                                dense1D<unsigned>& nodes) const noexcept {
    try {
        auto append = [&nodes](unsigned v, unsigned) { nodes.push_back(v); };
        if (tree2_) tree2_->box(Pmin.data(), Pmax.data(), append);
        if (tree3_) tree3_->box(Pmin.data(), Pmax.data(), append);
    } catch (const std::bad_alloc&) {
    }
}

unsigned node_detector::size() const noexcept {
    if (tree2_) return static_cast<unsigned>(tree2_->slot_count());
    if (tree3_) return static_cast<unsigned>(tree3_->slot_count());
    return 0;
}

}  // namespace nodara
}  // namespace zq5
