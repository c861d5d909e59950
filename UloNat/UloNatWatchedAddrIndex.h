#pragma once
// Watched addresses of an interface engine: which addresses each connection
// depends on for its next hop, which connections depend on each address, and
// the references those dependencies hold outside the engine.
//
// A connection watches the address whose next hop its hardware entry needs
// (a static connection one, a twice connection two, a dynamic connection
// one). For every address a connection watches, three records outside the
// engine count it once:
//   - NatSmStatusVrf::ipAddrIntfInfo, through addAddress/delAddress: which
//     interfaces to tell when the address resolves differently;
//   - NatSmStatusVrf::routeResolverRefCount and the route-resolver request in
//     NextHopMapConfig, through NatSmStatus::addRouteConfigWatchedAddr and
//     removeRouteConfigWatchedAddr (no-ops while next-hop tracking is off).
// WatchedAddrReferences takes and gives back those three together.
// WatchedAddrIndex<Key, Watched> keeps, for one kind of connection, the
// forward map (key to what it watches) and the reverse map (address to the
// keys that watch it), and is the one place that takes and gives back the
// references, so that they always equal what the forward map says.
//
// Thread safety: none needed; the engine runs on the agent's one thread.
//
// Invariants of an index, between any two calls:
//  1. A key is in the forward map exactly when it holds references: one per
//     address of its Watched value (an address named twice is counted
//     twice), taken by watch() and given back by unwatch().
//  2. addr -> key is in the reverse map exactly when key's Watched value
//     names addr. No reverse member has an empty key set ("addrInfo": the
//     reverse member of an address can always be made).
//  3. watch() of a key with the Watched value it already has takes nothing:
//     a handler run again for the same rule (as a re-pointed reactor does)
//     leaves every count as it was. watch() of a key that watched something
//     else gives that back first.
//
// Iteration: keysWatching() returns a copy, so a caller may watch, unwatch or
// delete connections while it walks the copy; the copy may then name keys
// that no longer watch the address, which the caller must tolerate.

#include <array>
#include <map>
#include <set>
#include <vector>

#include "UloNat/UloNatTypes.h"
#include "framework/UloAssert.h"

namespace Ulo {

// The keys of one kind of connection that watch one address. An entity in
// the engine's reverse index; made on first use and dropped with its last
// key.
template <class Key>
class WatchedAddrInfo : public Vor::PtrInterface {
 public:
   using KeySet = std::set<Key>;

   explicit WatchedAddrInfo(Lumet::IpAddr const& addr) : addr_(addr) {}
   Lumet::IpAddr const& addr() const { return addr_; }
   KeySet const& mappedAddr() const { return mappedAddr_; }
   bool mappedAddrHas(Key const& key) const { return mappedAddr_.count(key) != 0; }
   void mappedAddrIs(Key const& key) { mappedAddr_.insert(key); }
   void mappedAddrDel(Key const& key) { mappedAddr_.erase(key); }

 private:
   Lumet::IpAddr const addr_;
   KeySet mappedAddr_;
};

using StaticNatAddrInfo = WatchedAddrInfo<Ip::Nat::StaticKey>;
using TwiceNatAddrInfo = WatchedAddrInfo<TwiceNatKey>;
using DynamicNatAddrInfo = WatchedAddrInfo<Lumet::ConnTuple>;

// The two addresses that one twice connection watches.
struct TwiceNatWatchedAddr {
   Lumet::IpAddr srcWatchedAddr;
   Lumet::IpAddr dstWatchedAddr;

   bool operator==(TwiceNatWatchedAddr const&) const = default;
   bool operator<(TwiceNatWatchedAddr const& o) const {
      if (srcWatchedAddr < o.srcWatchedAddr) return true;
      if (o.srcWatchedAddr < srcWatchedAddr) return false;
      return dstWatchedAddr < o.dstWatchedAddr;
   }
   std::string stringValue() const;
};

// The addresses named by a Watched value, in the order their references are
// taken. One address for a plain address; source then destination for a
// twice connection.
// A fixed array: the add path of every connection asks, so it must not
// allocate.
inline std::array<Lumet::IpAddr, 1> watchedAddrs(Lumet::IpAddr const& addr) { return {addr}; }
inline std::array<Lumet::IpAddr, 2> watchedAddrs(TwiceNatWatchedAddr const& watched) {
   return {watched.srcWatchedAddr, watched.dstWatchedAddr};
}

// The references outside the engine that one watched address holds for one
// connection of the engine's interface. Bound once the engine knows its VRF
// record; every take is matched by exactly one giveBack.
class WatchedAddrReferences {
 public:
   // REQUIRES: the engine's VRF record exists ("vrfStatus()").
   void bind(Ptr<NatSmStatus> const& natSmStatus, Ptr<NatSmStatusVrf> const& vrfStatus,
             Lumet::IntfId const& natIntf, VrfId vrfId) {
      natSmStatus_ = natSmStatus;
      vrfStatus_ = vrfStatus;
      natIntf_ = natIntf;
      vrfId_ = vrfId;
   }
   bool bound() const { return static_cast<bool>(vrfStatus_); }

   // The interface's reference on addr, and the route request's. An index
   // takes the first before it enters its maps and the second after, and
   // gives them back in the same order.
   void take(Lumet::IpAddr const& addr) const { vrfStatus_->addAddress(natIntf_, addr); }
   void takeRoute(Lumet::IpAddr const& addr) const { natSmStatus_->addRouteConfigWatchedAddr(addr, vrfId_); }
   void giveBack(Lumet::IpAddr const& addr) const { vrfStatus_->delAddress(natIntf_, addr); }
   void giveBackRoute(Lumet::IpAddr const& addr) const {
      natSmStatus_->removeRouteConfigWatchedAddr(addr, vrfId_);
   }

 private:
   Ptr<NatSmStatus> natSmStatus_;
   Ptr<NatSmStatusVrf> vrfStatus_;
   Lumet::IntfId natIntf_;
   VrfId vrfId_ = 0;
};

// Forward and reverse watched-address maps of one kind of connection, with
// the references they hold. Key is the connection's key (Ip::Nat::StaticKey,
// TwiceNatKey, Lumet::ConnTuple); Watched is what one key watches
// (Lumet::IpAddr, or TwiceNatWatchedAddr).
template <class Key, class Watched>
class WatchedAddrIndex {
 public:
   using Info = WatchedAddrInfo<Key>;
   using ForwardMap = std::map<Key, Watched>;
   using ReverseMap = std::map<Lumet::IpAddr, Ptr<Info>>;

   explicit WatchedAddrIndex(WatchedAddrReferences const& references) : references_(references) {}
   WatchedAddrIndex(WatchedAddrIndex const&) = delete;
   WatchedAddrIndex& operator=(WatchedAddrIndex const&) = delete;

   // ---- the whole dependency of one connection ----

   // Makes `key` watch `watched`: takes the references and enters both maps.
   // Takes nothing when key already watches exactly `watched`; gives back
   // what key watched before when that differs. Returns whether anything
   // changed.
   // REQUIRES: the references are bound.
   bool watch(Key const& key, Watched const& watched) {
      auto const it = forward_.find(key);
      if (it != forward_.end()) {
         if (it->second == watched) return false;
         unwatch(key);
      }
      auto const addrs = watchedAddrs(watched);
      for (auto const& addr : addrs) references_.take(addr);
      keyWatchedAddrIs(key, watched);
      for (auto const& addr : addrs) references_.takeRoute(addr);
      return true;
   }

   // Ends key's dependency: gives back its references and leaves both maps.
   // A key that watches nothing is no error. Returns whether it watched.
   bool unwatch(Key const& key) {
      auto const it = forward_.find(key);
      if (it == forward_.end()) return false;
      Watched const watched = it->second;
      auto const addrs = watchedAddrs(watched);
      for (auto const& addr : addrs) references_.giveBack(addr);
      keyWatchedAddrDel(key, watched);
      for (auto const& addr : addrs) references_.giveBackRoute(addr);
      return true;
   }

   // ---- the map steps alone, without references ----

   // Writes the forward member, then enters key in the reverse member of
   // each address, making it on first use.
   void keyWatchedAddrIs(Key const& key, Watched const& watched) {
      forward_[key] = watched;
      for (auto const& addr : watchedAddrs(watched)) {
         Ptr<Info>& addrInfo = reverse_[addr];
         if (!addrInfo) addrInfo = Ptr<Info>(new Info(addr));
         uloAssert(addrInfo);
         addrInfo->mappedAddrIs(key);
      }
   }
   // Removes the forward member, and key from the reverse member of each
   // address of `watched`, dropping a reverse member with its last key.
   void keyWatchedAddrDel(Key const& key, Watched const& watched) {
      forward_.erase(key);
      for (auto const& addr : watchedAddrs(watched)) {
         auto const it = reverse_.find(addr);
         if (it == reverse_.end()) continue;
         it->second->mappedAddrDel(key);
         if (it->second->mappedAddr().empty()) reverse_.erase(it);
      }
   }

   // ---- reading ----

   ForwardMap const& keyWatchedAddr() const { return forward_; }
   Watched const* keyWatchedAddr(Key const& key) const {
      auto const it = forward_.find(key);
      return it == forward_.end() ? nullptr : &it->second;
   }
   bool watches(Key const& key) const { return forward_.count(key) != 0; }
   ReverseMap const& watchedAddrKey() const { return reverse_; }
   // The reverse member of addr, null when no key watches it.
   Ptr<Info> watchedAddrKey(Lumet::IpAddr const& addr) const {
      auto const it = reverse_.find(addr);
      return it == reverse_.end() ? Ptr<Info>() : it->second;
   }
   // A copy of the keys that watch addr, in key order.
   std::vector<Key> keysWatching(Lumet::IpAddr const& addr) const {
      auto const it = reverse_.find(addr);
      if (it == reverse_.end()) return {};
      return std::vector<Key>(it->second->mappedAddr().begin(), it->second->mappedAddr().end());
   }
   bool empty() const { return forward_.empty(); }

 private:
   WatchedAddrReferences const& references_;
   ForwardMap forward_;
   ReverseMap reverse_;
};

} // namespace Ulo
