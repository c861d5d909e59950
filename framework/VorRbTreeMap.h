#pragma once
// Vor::RbTreeMapGeneric<K, V>: an ordered map (a red-black tree) whose walks
// survive call-outs that change it.
//
//    for (auto it = map.first(); it; ++it) {
//       callOut(it.key());          // may add or erase any members
//    }
//
// Keys are value types with operator< (a strict weak order) and are copyable;
// values need not be default-constructible.
//
// Versions. Every change bumps version(): an insertion, an erase that found
// its key, insertOrAssign, clear of a non-empty map, copy or move into it.
// A change made through a V* or value() does not.
//
// Iterators. An iterator remembers the key of the member it stands on and
// the version it last saw. As long as the version is unchanged it walks the
// tree directly. When it finds the version changed it finds its place again
// by key, so that a loop whose body may change the map:
//   1. never crashes and never visits a key twice, and visits keys in
//      strictly ascending order (descending for prev());
//   2. after a change, goes on with the first key above the last one it
//      visited: a member added above that point is visited, one added below
//      is not, and a member erased before the walk reached it is skipped
//      (so a call-out that erases the next member makes the walk carry on
//      with the one behind it);
//   3. can still read key() of the member it stands on after that member was
//      erased: isStale() turns true and value() is forbidden (uloAssert).
// No registration: iterators cost nothing to the map, and any number may
// exist. An iterator must not outlive its map.
//
// A V* from find() stays valid until its member is erased or the map is
// cleared; insertions never move members.
//
// Thread safety: none; a map and its iterators are used from one thread.
//
// Invariants:
//  1. Binary search tree: for each node, the keys in its left subtree are
//     below its key, those in its right subtree above; keys are unique.
//  2. Parent links agree with child links; root_->parent is null.
//  3. The root is black; no red node has a red child; every path from a node
//     down to a null leaf passes the same number of black nodes. So the depth
//     is at most 2 log2(size + 1).
//  4. size_ is the number of nodes.
// checkInvariants() verifies all four (tests use it).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>

#include "framework/UloAssert.h"
#include "framework/VorCollectionHash.h"

namespace Vor {

namespace Impl {

template <typename K, typename V>
struct RbTreeNode {
   template <typename... A>
   RbTreeNode(K const& k, A&&... args) : key(k), value(std::forward<A>(args)...) {}
   RbTreeNode(RbTreeNode const&) = delete;
   RbTreeNode& operator=(RbTreeNode const&) = delete;

   RbTreeNode* left = nullptr;
   RbTreeNode* right = nullptr;
   RbTreeNode* parent = nullptr;
   bool red = true;
   K const key;
   V value;
};

} // namespace Impl

template <typename K, typename V>
class RbTreeMapGeneric {
 public:
   using Node = Impl::RbTreeNode<K, V>;
   template <bool kConst>
   class IteratorT;
   using Iterator = IteratorT<false>;
   using ConstIterator = IteratorT<true>;

   RbTreeMapGeneric() = default;
   RbTreeMapGeneric(RbTreeMapGeneric const& other) { copyFrom(other); }
   RbTreeMapGeneric(RbTreeMapGeneric&& other) noexcept { steal(other); }
   RbTreeMapGeneric& operator=(RbTreeMapGeneric const& other) {
      if (this != &other) {
         clear();
         copyFrom(other);
         ++version_;
      }
      return *this;
   }
   RbTreeMapGeneric& operator=(RbTreeMapGeneric&& other) noexcept {
      if (this != &other) {
         clear();
         steal(other);
      }
      return *this;
   }
   ~RbTreeMapGeneric() {
      Node* root = root_;
      root_ = nullptr;
      destroy(root);
   }

   // The member with key `key`, or null.
   V* find(K const& key) {
      Node* n = findNode(key);
      return n ? &n->value : nullptr;
   }
   V const* find(K const& key) const {
      Node const* n = findNode(key);
      return n ? &n->value : nullptr;
   }
   bool contains(K const& key) const { return findNode(key) != nullptr; }

   // Adds `key` with a value built from `args` unless `key` is present.
   // Returns the member's value and whether it was added; an existing member
   // is left unchanged (and the version too).
   // REQUIRES: building the value does not change this map.
   template <typename... A>
   std::pair<V*, bool> emplace(K const& key, A&&... args) {
      Node* parent = nullptr;
      Node** link = &root_;
      while (*link != nullptr) {
         parent = *link;
         if (key < parent->key) {
            link = &parent->left;
         } else if (parent->key < key) {
            link = &parent->right;
         } else {
            return {&parent->value, false};
         }
      }
      Node* node = new Node(key, std::forward<A>(args)...);
      node->parent = parent;
      *link = node;
      insertFixup(node);
      ++size_;
      ++version_;
      return {&node->value, true};
   }
   std::pair<V*, bool> insert(K const& key, V value) { return emplace(key, std::move(value)); }
   // Adds `key` with `value`, or replaces the value of the member present.
   V& insertOrAssign(K const& key, V value) {
      if (Node* n = findNode(key)) {
         n->value = std::move(value);
         ++version_;
         return n->value;
      }
      return *emplace(key, std::move(value)).first;
   }

   // Removes the member with key `key`; returns whether there was one. The
   // value is destroyed after the tree is consistent again, so its
   // destructor may use this map.
   bool erase(K const& key) {
      Node* n = findNode(key);
      if (n == nullptr) return false;
      unlink(n);
      --size_;
      ++version_;
      delete n;
      return true;
   }

   // Removes every member. Values are destroyed after the map is empty.
   void clear() {
      if (root_ == nullptr) return;
      Node* root = root_;
      root_ = nullptr;
      size_ = 0;
      ++version_;
      destroy(root);
   }

   std::size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   std::uint64_t version() const { return version_; }

   // Iterators on the smallest and the largest member, on the first member
   // whose key is not below `key` (lowerBound) or is above it (upperBound);
   // done when there is none.
   Iterator first() { return Iterator(this, leftmost(root_)); }
   ConstIterator first() const { return ConstIterator(this, leftmost(root_)); }
   Iterator last() { return Iterator(this, rightmost(root_)); }
   ConstIterator last() const { return ConstIterator(this, rightmost(root_)); }
   Iterator lowerBound(K const& key) { return Iterator(this, lowerBoundNode(key)); }
   ConstIterator lowerBound(K const& key) const { return ConstIterator(this, lowerBoundNode(key)); }
   Iterator upperBound(K const& key) { return Iterator(this, upperBoundNode(key)); }
   ConstIterator upperBound(K const& key) const { return ConstIterator(this, upperBoundNode(key)); }
   // An iterator on member `key`, or a done one.
   Iterator iteratorAt(K const& key) { return Iterator(this, findNode(key)); }
   ConstIterator iteratorAt(K const& key) const { return ConstIterator(this, findNode(key)); }

   Iterator begin() { return first(); }
   ConstIterator begin() const { return first(); }
   IterationEnd end() const { return {}; }

   // Verifies invariants 1 to 4; returns false when one is broken.
   bool checkInvariants() const {
      if (root_ == nullptr) return size_ == 0;
      if (root_->parent != nullptr || root_->red) return false;
      std::size_t count = 0;
      return blackHeight(root_, nullptr, nullptr, count) >= 0 && count == size_;
   }

   template <bool kConst>
   class IteratorT {
    public:
      using Map = std::conditional_t<kConst, RbTreeMapGeneric const, RbTreeMapGeneric>;
      using Value = std::conditional_t<kConst, V const, V>;

      IteratorT() = default;
      IteratorT(Map* map, Node* node) : map_(map), version_(map->version_) { standOn(node); }
      template <bool kOther, typename = std::enable_if_t<kConst && !kOther>>
      IteratorT(IteratorT<kOther> const& o)
          : map_(o.map_), node_(o.node_), key_(o.key_), version_(o.version_) {}

      // Done: stands on no member (walked off the end, or built on none).
      bool done() const { return !key_.has_value(); }
      explicit operator bool() const { return key_.has_value(); }

      // The key of the member stood on, even if it was erased since.
      // REQUIRES: !done().
      K const& key() const {
         uloAssert(key_.has_value());
         return *key_;
      }
      // REQUIRES: isLive().
      Value& value() const {
         bool const live = resync();
         uloAssert(live);
         return node_->value;
      }
      // Whether the member stood on is still in the map (a member erased and
      // added again with the same key counts as still there).
      bool isLive() const { return resync(); }
      bool isStale() const { return key_.has_value() && !resync(); }

      // Moves to the member with the next key above key(), as the map is
      // now. REQUIRES: !done().
      void next() { step(true); }
      // Moves to the member with the next key below key(). REQUIRES: !done().
      void prev() { step(false); }
      IteratorT& operator++() {
         next();
         return *this;
      }
      IteratorT& operator--() {
         prev();
         return *this;
      }

      // The element of a range-for is the iterator itself.
      IteratorT const& operator*() const { return *this; }
      IteratorT const* operator->() const { return this; }
      friend bool operator==(IteratorT const& it, IterationEnd) { return it.done(); }

    private:
      template <bool>
      friend class IteratorT;

      // next() for `up`, prev() otherwise: while the map is unchanged the
      // walk follows the tree, else it finds its place again by key.
      void step(bool up) {
         uloAssert(key_.has_value());
         if (map_->version_ == version_ && node_ != nullptr) {
            standOn(neighbour(node_, up));
         } else {
            version_ = map_->version_;
            standOn(up ? map_->upperBoundNode(*key_) : map_->lastBelowNode(*key_));
         }
      }
      void standOn(Node* node) {
         node_ = node;
         if (node != nullptr) {
            key_.emplace(node->key);
         } else {
            key_.reset();
         }
      }
      // Brings node_ up to date with the map; returns whether the member
      // stood on is there. Cheap while the map is unchanged.
      bool resync() const {
         if (!key_.has_value()) return false;
         if (map_->version_ != version_) {
            version_ = map_->version_;
            node_ = map_->findNode(*key_);
         }
         return node_ != nullptr;
      }

      Map* map_ = nullptr;
      // The member stood on; null when it was erased (key_ tells which).
      mutable Node* node_ = nullptr;
      std::optional<K> key_;
      mutable std::uint64_t version_ = 0;
   };

 private:
   static bool isRed(Node const* n) { return n != nullptr && n->red; }
   // The walks and the rebalancing come in mirror-image pairs; each pair is
   // written once, with the side as a parameter: `right` true means the
   // right side, false the left.
   static Node*& child(Node* n, bool right) { return right ? n->right : n->left; }
   // The last node reached from `n` going down one side only.
   static Node* outermost(Node* n, bool right) {
      if (n != nullptr) {
         while (child(n, right) != nullptr) n = child(n, right);
      }
      return n;
   }
   static Node* leftmost(Node* n) { return outermost(n, false); }
   static Node* rightmost(Node* n) { return outermost(n, true); }
   // The neighbour of `n` in key order: the next key above for `right`,
   // the next key below otherwise; null at the end.
   static Node* neighbour(Node* n, bool right) {
      if (child(n, right) != nullptr) return outermost(child(n, right), !right);
      Node* p = n->parent;
      while (p != nullptr && n == child(p, right)) {
         n = p;
         p = p->parent;
      }
      return p;
   }
   static Node* successor(Node* n) { return neighbour(n, true); }

   Node* findNode(K const& key) const {
      Node* n = root_;
      while (n != nullptr) {
         if (key < n->key) {
            n = n->left;
         } else if (n->key < key) {
            n = n->right;
         } else {
            return n;
         }
      }
      return nullptr;
   }
   Node* lowerBoundNode(K const& key) const {
      Node* found = nullptr;
      for (Node* n = root_; n != nullptr;) {
         if (n->key < key) {
            n = n->right;
         } else {
            found = n;
            n = n->left;
         }
      }
      return found;
   }
   Node* upperBoundNode(K const& key) const {
      Node* found = nullptr;
      for (Node* n = root_; n != nullptr;) {
         if (key < n->key) {
            found = n;
            n = n->left;
         } else {
            n = n->right;
         }
      }
      return found;
   }
   Node* lastBelowNode(K const& key) const {
      Node* found = nullptr;
      for (Node* n = root_; n != nullptr;) {
         if (n->key < key) {
            found = n;
            n = n->right;
         } else {
            n = n->left;
         }
      }
      return found;
   }

   // Moves `x` down to side `right` of its child on the other side, which
   // takes x's place: rotate(x, false) is the left rotation.
   void rotate(Node* x, bool right) {
      Node* y = child(x, !right);
      Node* inner = child(y, right);
      child(x, !right) = inner;
      if (inner != nullptr) inner->parent = x;
      replaceChild(x, y);
      child(y, right) = x;
      x->parent = y;
   }
   // Puts `v` (possibly null) where `u` hangs from u's parent.
   void replaceChild(Node* u, Node* v) {
      Node* p = u->parent;
      if (p == nullptr) {
         root_ = v;
      } else if (u == p->left) {
         p->left = v;
      } else {
         p->right = v;
      }
      if (v != nullptr) v->parent = p;
   }

   // Restores invariant 3 after `z` was linked in red as a leaf.
   void insertFixup(Node* z) {
      while (isRed(z->parent)) {
         Node* p = z->parent;
         Node* g = p->parent; // exists: a red node is not the root
         bool const pRight = p == g->right;
         Node* u = child(g, !pRight);
         if (isRed(u)) {
            p->red = false;
            u->red = false;
            g->red = true;
            z = g;
         } else {
            if (z == child(p, !pRight)) {
               // z is an inner grandchild: turn it into an outer one.
               rotate(p, pRight);
               z = p;
               p = z->parent;
            }
            p->red = false;
            g->red = true;
            rotate(g, !pRight);
         }
      }
      root_->red = false;
   }

   // Takes `z` out of the tree and rebalances; does not free it.
   void unlink(Node* z) {
      Node* x;        // the node that moves into the removed position
      Node* xParent;  // its parent (x may be null)
      bool removedRed;
      if (z->left == nullptr || z->right == nullptr) {
         x = z->left != nullptr ? z->left : z->right;
         xParent = z->parent;
         removedRed = z->red;
         replaceChild(z, x);
      } else {
         // Two children: z's successor y takes z's place and colour; the
         // colour removed from the tree is y's.
         Node* y = leftmost(z->right);
         removedRed = y->red;
         x = y->right;
         if (y->parent == z) {
            xParent = y;
         } else {
            xParent = y->parent;
            replaceChild(y, x);
            y->right = z->right;
            y->right->parent = y;
         }
         replaceChild(z, y);
         y->left = z->left;
         y->left->parent = y;
         y->red = z->red;
      }
      if (!removedRed) eraseFixup(x, xParent);
   }

   // Restores invariant 3 when a black node was removed above `x`, which
   // carries an extra black.
   void eraseFixup(Node* x, Node* parent) {
      while (x != root_ && !isRed(x)) {
         // x may be null, so its side is found by comparing with the left.
         bool const xRight = x != parent->left;
         // x has a sibling: its side lacks one black, so the other side has
         // at least one node.
         Node* w = child(parent, !xRight);
         if (isRed(w)) {
            w->red = false;
            parent->red = true;
            rotate(parent, xRight);
            w = child(parent, !xRight);
         }
         if (!isRed(w->left) && !isRed(w->right)) {
            w->red = true;
            x = parent;
            parent = x->parent;
         } else {
            if (!isRed(child(w, !xRight))) {
               child(w, xRight)->red = false;
               w->red = true;
               rotate(w, !xRight);
               w = child(parent, !xRight);
            }
            w->red = parent->red;
            parent->red = false;
            child(w, !xRight)->red = false;
            rotate(parent, xRight);
            x = root_;
            parent = nullptr;
         }
      }
      if (x != nullptr) x->red = false;
   }

   // Black height of the subtree at `n`, or -1 when an invariant is broken.
   // `low` and `high` bound its keys (null: unbounded).
   int blackHeight(Node const* n, K const* low, K const* high, std::size_t& count) const {
      if (n == nullptr) return 0;
      ++count;
      if ((low != nullptr && !(*low < n->key)) || (high != nullptr && !(n->key < *high))) return -1;
      if (n->left != nullptr && n->left->parent != n) return -1;
      if (n->right != nullptr && n->right->parent != n) return -1;
      if (n->red && (isRed(n->left) || isRed(n->right))) return -1;
      int const l = blackHeight(n->left, low, &n->key, count);
      int const r = blackHeight(n->right, &n->key, high, count);
      if (l < 0 || r < 0 || l != r) return -1;
      return l + (n->red ? 0 : 1);
   }

   static void destroy(Node* n) {
      // Iterative, to free any tree with constant stack.
      while (n != nullptr) {
         if (n->left != nullptr) {
            // Rotate the left child up so that n loses its left subtree.
            Node* l = n->left;
            n->left = l->right;
            l->right = n;
            n = l;
         } else {
            Node* r = n->right;
            delete n;
            n = r;
         }
      }
   }

   void copyFrom(RbTreeMapGeneric const& other) {
      for (Node* n = leftmost(other.root_); n != nullptr; n = successor(n)) emplace(n->key, n->value);
   }
   void steal(RbTreeMapGeneric& other) {
      root_ = other.root_;
      size_ = other.size_;
      version_ = std::max(version_, other.version_) + 1;
      other.root_ = nullptr;
      other.size_ = 0;
      ++other.version_;
   }

   Node* root_ = nullptr;
   std::size_t size_ = 0;
   std::uint64_t version_ = 0;
};

} // namespace Vor
