#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "hashdb/block_tree.h"
#include "hashdb/hash_node.h"
#include "hashdb/text_key.h"

// A directory's children, ordered byte-wise by their keys (the normalised names), each held by a
// shared reference. The key is the child's own (CHashNode::key()), so it is stored once, in the
// child; a child costs its reference and the packed first bytes of its key, where an ordered map
// node costs some 100 bytes. Reads like an ordered map from key to child.
//
// A child's key must not change while it is in the map: take it out, rename it, put it back.
// Guarded by the owning directory's lock (see CHashNode).
class CChildMap {
 public:
  // One child as (key, node), like an ordered map's element.
  struct value_type {
    const std::string& first;
    const std::shared_ptr<CHashNode>& second;
  };

 private:
  struct CTraits {
    using Key = CTextKey;
    static Key KeyOf(const std::shared_ptr<CHashNode>& child) { return CTextKey(child->key()); }
    static bool Less(const Key& a, const Key& b) { return a < b; }
  };
  using CTree = CBlockTree<std::shared_ptr<CHashNode>, CTraits, false>;

 public:
  class iterator {
   public:
    iterator() = default;
    value_type operator*() const { return value_type{(*it_)->key(), *it_}; }
    // Lets "it->second" read like an ordered map's iterator.
    struct CArrow {
      value_type element;
      const value_type* operator->() const { return &element; }
    };
    CArrow operator->() const { return CArrow{**this}; }
    iterator& operator++() {
      ++it_;
      return *this;
    }
    bool operator==(const iterator& other) const { return it_ == other.it_; }

   private:
    friend class CChildMap;
    explicit iterator(CTree::const_iterator it) : it_(it) {}
    CTree::const_iterator it_;
  };
  using const_iterator = iterator;

  iterator begin() const { return iterator(children_.begin()); }
  iterator end() const { return iterator(children_.end()); }
  size_t size() const { return children_.size(); }
  bool empty() const { return children_.empty(); }
  void clear() { children_.clear(); }

  iterator find(const std::string& key) const {
    CTextKey wanted(key);
    CTree::CPosition position = children_.LowerBound(wanted);
    const std::shared_ptr<CHashNode>* child = children_.At(position);
    if (child == nullptr || wanted < CTraits::KeyOf(*child)) return end();
    return iterator(children_.IteratorAt(position));
  }

  // Adds a child under its own key; false, and no change, when the key is taken.
  bool insert(std::shared_ptr<CHashNode> child) {
    CTextKey key = CTraits::KeyOf(child);
    CTree::CPosition position = children_.LowerBound(key);
    const std::shared_ptr<CHashNode>* there = children_.At(position);
    if (there != nullptr && !(key < CTraits::KeyOf(*there))) return false;
    children_.InsertAt(position, std::move(child));
    return true;
  }

  // Adds a child under its own key in place of whatever was there; returns what it replaced.
  std::shared_ptr<CHashNode> insert_or_replace(std::shared_ptr<CHashNode> child) {
    CTextKey key = CTraits::KeyOf(child);
    CTree::CPosition position = children_.LowerBound(key);
    std::shared_ptr<CHashNode>* there = children_.At(position);
    if (there != nullptr && !(key < CTraits::KeyOf(*there))) {
      // The replacement has an equal key, so the order (and the copies of first keys, which
      // point into the key text of the element in that place) must be refreshed: erase, insert.
      std::shared_ptr<CHashNode> replaced = *there;
      children_.EraseAt(position);
      children_.InsertAt(children_.LowerBound(key), std::move(child));
      return replaced;
    }
    children_.InsertAt(position, std::move(child));
    return nullptr;
  }

  size_t erase(const std::string& key) {
    iterator it = find(key);
    if (it == end()) return 0;
    erase(it);
    return 1;
  }
  void erase(iterator position) { children_.EraseAt(children_.PositionOf(position.it_)); }

 private:
  CTree children_;
};
