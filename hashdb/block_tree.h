#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include <boost/container/static_vector.hpp>

// An ordered container for many small elements: a B+tree whose leaves are sorted blocks of up to
// kLeafCapacity elements and whose inner nodes hold up to kInnerCapacity children. Every key
// carries a 64-bit prefix that orders like the key and decides most comparisons; each node keeps
// the prefixes of its elements (or of its children's first keys) side by side in an array of
// their own, so a search touches a few cache lines per level where a red-black tree touches one
// per comparison, and an element costs its own size plus some free room instead of a node
// allocation of its own.
//
// Traits supplies the key: "using Key = ..." with a member "uint64_t prefix",
// "static Key KeyOf(const T&)" and "static bool Less(const Key&, const Key&)", which must order by
// prefix first. A key may refer into its element (a text it owns): inner nodes keep copies of
// their children's first keys and refresh them whenever a first element changes or moves.
//
// "kReserveLeaves": leaves hold a full block inline, the prefixes right after the leaf's header
// (large containers, where a search must not pay a cache miss for a separate array, nor growing
// a block step by step), or arrays that grow as they fill (many small containers, most of which
// never fill one block). Inner nodes always hold their arrays inline.
//
// Positions stay valid until the next insertion or erasure. Not thread-safe: the owner
// serialises access.
template <class T, class Traits, bool kReserveLeaves = true>
class CBlockTree {
 public:
  using Key = typename Traits::Key;
  static constexpr size_t kLeafCapacity = 64;
  static constexpr size_t kInnerCapacity = 64;

 private:
  template <class U, size_t kCapacity>
  using CInlineArray = boost::container::static_vector<U, kCapacity>;
  template <class U>
  using CLeafArray = std::conditional_t<kReserveLeaves, CInlineArray<U, kLeafCapacity + 1>, std::vector<U>>;

  struct CInner;
  struct CNode {
    explicit CNode(bool is_leaf) : leaf(is_leaf) {}
    virtual ~CNode() = default;
    const bool leaf;
    CInner* parent = nullptr;
  };
  struct CLeaf : CNode {
    CLeaf() : CNode(true) {}
    CLeaf* next = nullptr;
    CLeaf* previous = nullptr;
    // The items before the prefixes: an inline array keeps its size after its elements, so the
    // items' size shares a cache line with the first prefixes, which a search reads together.
    CLeafArray<T> items;
    CLeafArray<uint64_t> prefixes;  // the prefix of each element's key
  };
  struct CInner : CNode {
    CInner() : CNode(false) {}
    CInlineArray<uint64_t, kInnerCapacity + 1> prefixes;  // the prefix of each child's first key
    CInlineArray<std::unique_ptr<CNode>, kInnerCapacity + 1> children;
    CInlineArray<Key, kInnerCapacity + 1> firsts;  // each child's first key, for prefixes that tie
  };

 public:
  // A place in the sequence: an element of a leaf, or the end of a leaf (index equal to its
  // size), which is where a key larger than everything in that leaf and smaller than everything
  // in the next goes.
  struct CPosition {
    CLeaf* leaf = nullptr;
    size_t index = 0;
  };

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = const T*;
    using reference = const T&;

    const_iterator() = default;
    const T& operator*() const { return leaf_->items[index_]; }
    const T* operator->() const { return &leaf_->items[index_]; }
    const_iterator& operator++() {
      if (++index_ == leaf_->items.size()) {
        leaf_ = leaf_->next;
        index_ = 0;
      }
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const const_iterator& other) const {
      return leaf_ == other.leaf_ && index_ == other.index_;
    }

   private:
    friend class CBlockTree;
    const_iterator(const CLeaf* leaf, size_t index) : leaf_(leaf), index_(index) {}
    const CLeaf* leaf_ = nullptr;
    size_t index_ = 0;
  };

  CBlockTree() = default;
  CBlockTree(const CBlockTree&) = delete;
  CBlockTree& operator=(const CBlockTree&) = delete;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  void clear() {
    root_.reset();
    height_ = 0;
    first_leaf_ = nullptr;
    last_leaf_ = nullptr;
    size_ = 0;
  }

  // Leaves are never empty, so the end is the null leaf.
  const_iterator begin() const { return const_iterator(first_leaf_, 0); }
  const_iterator end() const { return const_iterator(nullptr, 0); }

  // An iterator's position, and the other way round.
  CPosition PositionOf(const_iterator it) const { return CPosition{const_cast<CLeaf*>(it.leaf_), it.index_}; }
  const_iterator IteratorAt(CPosition position) const {
    if (position.leaf != nullptr && position.index == position.leaf->items.size()) {
      return const_iterator(position.leaf->next, 0);
    }
    return const_iterator(position.leaf, position.index);
  }

  // The first position whose element is not less than "key".
  CPosition LowerBound(const Key& key) const {
    if (!root_) return CPosition{};
    // Down by the height rather than by each node's kind: a search never reads a leaf's header.
    const CNode* node = root_.get();
    for (size_t level = 1; level < height_; ++level) {
      const auto* inner = static_cast<const CInner*>(node);
      node = inner->children[ChildFor(*inner, key)].get();
    }
    auto* leaf = const_cast<CLeaf*>(static_cast<const CLeaf*>(node));
    size_t index = CountBelow(leaf->prefixes.data(), leaf->items.size(), key.prefix, false);
    while (index < leaf->items.size() && leaf->prefixes[index] == key.prefix &&
           Traits::Less(Traits::KeyOf(leaf->items[index]), key)) {
      ++index;
    }
    return CPosition{leaf, index};
  }

  // The element at "position", or null at the end of a leaf.
  T* At(CPosition position) const {
    if (position.leaf == nullptr || position.index >= position.leaf->items.size()) return nullptr;
    return &position.leaf->items[position.index];
  }

  // Whether the element at "position" has a key equal to "key" (its prefix decides most).
  bool Holds(CPosition position, const Key& key) const {
    if (position.leaf == nullptr || position.index >= position.leaf->items.size()) return false;
    return position.leaf->prefixes[position.index] == key.prefix &&
           !Traits::Less(key, Traits::KeyOf(position.leaf->items[position.index]));
  }

  // The element whose key equals "key", or null.
  T* Find(const Key& key) const {
    CPosition position = LowerBound(key);
    return Holds(position, key) ? At(position) : nullptr;
  }

  // The largest element, or null when there is none.
  T* Last() const { return last_leaf_ == nullptr ? nullptr : &last_leaf_->items.back(); }

  // Inserts "value" at "position", which must keep the order (the LowerBound of its key).
  void InsertAt(CPosition position, T value) {
    if (!root_) {
      auto leaf = std::make_unique<CLeaf>();
      first_leaf_ = last_leaf_ = leaf.get();
      root_ = std::move(leaf);
      height_ = 1;
      position = CPosition{first_leaf_, 0};
    }
    CLeaf& leaf = *position.leaf;
    auto at = static_cast<std::ptrdiff_t>(position.index);
    leaf.prefixes.insert(leaf.prefixes.begin() + at, Traits::KeyOf(value).prefix);
    leaf.items.insert(leaf.items.begin() + at, std::move(value));
    ++size_;
    if (position.index == 0) FirstChanged(&leaf);
    if (leaf.items.size() > kLeafCapacity) SplitLeaf(leaf);
  }

  // Appends an element whose key is not less than any key held: building from sorted input.
  // Leaves are filled to three quarters, leaving room for later insertions.
  void PushBack(T value) {
    if (last_leaf_ == nullptr || last_leaf_->items.size() < kLeafCapacity * 3 / 4) {
      InsertAt(CPosition{last_leaf_, last_leaf_ == nullptr ? 0 : last_leaf_->items.size()}, std::move(value));
      return;
    }
    auto leaf = std::make_unique<CLeaf>();
    CLeaf* added = leaf.get();
    added->prefixes.push_back(Traits::KeyOf(value).prefix);
    added->items.push_back(std::move(value));
    ++size_;
    CLeaf* before = last_leaf_;
    LinkLeafAfter(before, added);
    AttachAfter(before, std::move(leaf));
  }

  // Removes the element at "position" (which must hold one).
  void EraseAt(CPosition position) {
    CLeaf* leaf = position.leaf;
    auto at = static_cast<std::ptrdiff_t>(position.index);
    leaf->prefixes.erase(leaf->prefixes.begin() + at);
    leaf->items.erase(leaf->items.begin() + at);
    --size_;
    if (leaf->items.empty()) {
      RemoveLeaf(leaf);
      return;
    }
    if (position.index == 0) FirstChanged(leaf);
    MergeIfSparse(leaf);
  }

 private:
  // How many of the sorted "prefixes" are below "prefix" (or equal to it, with "or_equal"): the
  // lower or upper bound. Counted over the whole block rather than by halving: the loads do not
  // depend on each other, so the cache lines of a block that is not in the cache arrive together
  // instead of one miss after another, and there is no branch to mispredict.
  static size_t CountBelow(const uint64_t* prefixes, size_t count, uint64_t prefix, bool or_equal) {
    size_t below = 0;
    if (or_equal) {
      for (size_t i = 0; i < count; ++i) below += static_cast<size_t>(prefixes[i] <= prefix);
    } else {
      for (size_t i = 0; i < count; ++i) below += static_cast<size_t>(prefixes[i] < prefix);
    }
    return below;
  }

  static Key FirstKeyOf(const CNode* node) {
    while (!node->leaf) node = static_cast<const CInner*>(node)->children.front().get();
    return Traits::KeyOf(static_cast<const CLeaf*>(node)->items.front());
  }

  // The child of "inner" whose subtree holds "key": the last whose first key is not greater.
  static size_t ChildFor(const CInner& inner, const Key& key) {
    size_t after = CountBelow(inner.prefixes.data(), inner.prefixes.size(), key.prefix, true);
    while (after > 0 && inner.prefixes[after - 1] == key.prefix && Traits::Less(key, inner.firsts[after - 1])) {
      --after;
    }
    return after == 0 ? 0 : after - 1;
  }

  static size_t IndexInParent(const CNode* node) {
    const CInner* parent = node->parent;
    for (size_t i = 0; i < parent->children.size(); ++i) {
      if (parent->children[i].get() == node) return i;
    }
    return parent->children.size();  // not reached: a child is always among its parent's
  }

  // A node's first key changed: its copy in the parent, and up while it is the first child.
  static void FirstChanged(CNode* node) {
    Key first = FirstKeyOf(node);
    for (CNode* child = node; child->parent != nullptr; child = child->parent) {
      size_t index = IndexInParent(child);
      child->parent->firsts[index] = first;
      child->parent->prefixes[index] = first.prefix;
      if (index != 0) break;
    }
  }

  void LinkLeafAfter(CLeaf* existing, CLeaf* added) {
    added->previous = existing;
    added->next = existing->next;
    if (existing->next != nullptr) existing->next->previous = added;
    existing->next = added;
    if (last_leaf_ == existing) last_leaf_ = added;
  }

  // Hangs "added" into the parent of "existing", just after it, splitting full inner nodes on
  // the way up and growing a new root when the old one splits.
  void AttachAfter(CNode* existing, std::unique_ptr<CNode> added) {
    Key first = FirstKeyOf(added.get());
    CInner* parent = existing->parent;
    if (parent == nullptr) {
      auto root = std::make_unique<CInner>();
      existing->parent = root.get();
      added->parent = root.get();
      root->firsts.push_back(FirstKeyOf(existing));
      root->prefixes.push_back(root->firsts.back().prefix);
      root->firsts.push_back(first);
      root->prefixes.push_back(first.prefix);
      root->children.push_back(std::move(root_));
      root->children.push_back(std::move(added));
      root_ = std::move(root);
      ++height_;
      return;
    }
    auto at = static_cast<std::ptrdiff_t>(IndexInParent(existing)) + 1;
    added->parent = parent;
    parent->prefixes.insert(parent->prefixes.begin() + at, first.prefix);
    parent->firsts.insert(parent->firsts.begin() + at, first);
    parent->children.insert(parent->children.begin() + at, std::move(added));
    if (parent->children.size() > kInnerCapacity) SplitInner(*parent);
  }

  void SplitLeaf(CLeaf& leaf) {
    auto upper = std::make_unique<CLeaf>();
    auto cut = static_cast<std::ptrdiff_t>(leaf.items.size() / 2);
    upper->prefixes.assign(leaf.prefixes.begin() + cut, leaf.prefixes.end());
    std::move(leaf.items.begin() + cut, leaf.items.end(), std::back_inserter(upper->items));
    leaf.prefixes.erase(leaf.prefixes.begin() + cut, leaf.prefixes.end());
    leaf.items.erase(leaf.items.begin() + cut, leaf.items.end());
    LinkLeafAfter(&leaf, upper.get());
    AttachAfter(&leaf, std::move(upper));
  }

  void SplitInner(CInner& inner) {
    auto upper = std::make_unique<CInner>();
    auto cut = static_cast<std::ptrdiff_t>(inner.children.size() / 2);
    upper->prefixes.assign(inner.prefixes.begin() + cut, inner.prefixes.end());
    upper->firsts.assign(inner.firsts.begin() + cut, inner.firsts.end());
    for (auto child = inner.children.begin() + cut; child != inner.children.end(); ++child) {
      (*child)->parent = upper.get();
      upper->children.push_back(std::move(*child));
    }
    inner.prefixes.erase(inner.prefixes.begin() + cut, inner.prefixes.end());
    inner.firsts.erase(inner.firsts.begin() + cut, inner.firsts.end());
    inner.children.erase(inner.children.begin() + cut, inner.children.end());
    AttachAfter(&inner, std::move(upper));
  }

  // Takes an empty leaf out, and every inner node that it leaves without children.
  void RemoveLeaf(CLeaf* leaf) {
    if (leaf->previous != nullptr) leaf->previous->next = leaf->next;
    if (leaf->next != nullptr) leaf->next->previous = leaf->previous;
    if (first_leaf_ == leaf) first_leaf_ = leaf->next;
    if (last_leaf_ == leaf) last_leaf_ = leaf->previous;
    RemoveNode(leaf);
  }

  void RemoveNode(CNode* node) {
    CInner* parent = node->parent;
    if (parent == nullptr) {
      root_.reset();
      height_ = 0;
      return;
    }
    size_t index = IndexInParent(node);
    auto at = static_cast<std::ptrdiff_t>(index);
    parent->prefixes.erase(parent->prefixes.begin() + at);
    parent->firsts.erase(parent->firsts.begin() + at);
    parent->children.erase(parent->children.begin() + at);  // destroys the node
    if (parent->children.empty()) {
      RemoveNode(parent);
      return;
    }
    if (index == 0) FirstChanged(parent);
    // A root with one child hands the tree to that child.
    while (root_ && !root_->leaf && static_cast<CInner*>(root_.get())->children.size() == 1) {
      std::unique_ptr<CNode> only = std::move(static_cast<CInner*>(root_.get())->children.front());
      only->parent = nullptr;
      root_ = std::move(only);
      --height_;
    }
  }

  // A leaf that has fallen under a quarter takes in its right neighbour (of the same parent)
  // when both fit in three quarters of one.
  void MergeIfSparse(CLeaf* leaf) {
    CLeaf* right = leaf->next;
    if (leaf->items.size() >= kLeafCapacity / 4 || right == nullptr || right->parent != leaf->parent) return;
    if (leaf->items.size() + right->items.size() > kLeafCapacity * 3 / 4) return;
    leaf->prefixes.insert(leaf->prefixes.end(), right->prefixes.begin(), right->prefixes.end());
    std::move(right->items.begin(), right->items.end(), std::back_inserter(leaf->items));
    right->prefixes.clear();
    right->items.clear();
    RemoveLeaf(right);
  }

  std::unique_ptr<CNode> root_;
  size_t height_ = 0;  // levels from the root down to the leaves, which are all at one depth
  CLeaf* first_leaf_ = nullptr;
  CLeaf* last_leaf_ = nullptr;
  size_t size_ = 0;
};
