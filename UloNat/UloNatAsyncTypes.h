#pragma once
// Records that cross the boundary between the NAT logic and the hardware:
//
//   NatHwKey           names one hardware translation
//   NatVlanIdIndex,
//   NatEgressIntfIndex range-checked indices of the two arrays of NatHwData
//   NatHwData          what the translation does (VLANs, next hop, multicast)
//   NatHwShadowEntry   one record of the shared-memory hardware shadow
//
// Read when filling NatHwData: the next hop answers NatNextHopInfo and
// NatNextHopId (framework/UloNatNextHopInfo.h) and a rule's multicast state
// NatMulticastData (UloNatMrouteTypes.h).
//
// NatHwKey, NatHwData and NatHwShadowEntry are stored byte for byte in the
// shared-memory table, possibly read by another process built from the same
// headers. Their layout is therefore fixed and checked at compile time below:
//
//   NatHwKey (40 bytes)          NatHwData (688 bytes)
//     0  keyType       U32         0  protocol          U8
//     4  srcIpAndPortOld 6         4  filterAddr        8
//    10  srcIpAndPortNew 6        12  numFilterAddrs    U32
//    16  dstIpAndPortOld 6        16  nextHopId         U64
//    22  dstIpAndPortNew 6        24  vlanId            U32 count + 64 x U16
//    28  aclId         U32       156  staticAclSharing  bool
//    32  reverse       bool      160  mcastGroupId      U32
//    33  dynProto      U8        164  multicast         bool
//    34  groupId       U16       168  egressIntf        U32 count, pad,
//    36  filterAddrId  U32                              64 x IntfId (U64)
//
//   NatHwShadowEntry (736 bytes): key at 0, data at 40, dirty (U32) at 728.
//
// NatHwData and NatHwShadowEntry have padding (after protocol,
// staticAclSharing and multicast, inside the egress array, at the end of the
// entry) whose bytes are not specified. Equality is member-wise; nothing may
// compare or checksum these records byte for byte. Array cells past a count
// are zero (Vorn::PodArray), so member-wise equality is also what a byte copy
// preserves.
//
// Thread safety: values; const operations may run concurrently. The entities
// at the end follow the one-thread rule of the library.
//
// Invariants:
//  1. NatHwKey, NatHwData and NatHwShadowEntry are trivially copyable, hold no
//     pointers, and have the sizes and offsets above.
//  2. A default NatHwKey (all zero) names nothing and is never a shadow key.
//  3. NatHwData's arrays keep the count rules of Vorn::PodArray.

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

#include "framework/LumetIntfId.h"
#include "framework/LumetIpAddr.h"
#include "framework/UloVrfId.h"
#include "framework/VorEntity.h"
#include "framework/VorException.h"
#include "framework/VorHash.h"
#include "framework/VorPtr.h"
#include "framework/VornPodArray.h"
#include "framework/UloNatNextHopInfo.h"
#include "UloNat/UloNatAclTypes.h"
#include "UloNat/UloNatMrouteTypes.h"

namespace Ulo {

using Vor::U16;
using Vor::U32;
using Vor::U64;
using Vor::U8;

// ---------------------------------------------------------------------------
// NatHwKey

class NatHwKey {
 public:
   enum NatKeyType : U32 {
      unknown = 0,
      staticSnat = 1,
      staticDnat = 2,
      twiceNatForward = 3,
      twiceNatReverse = 4,
      dynamicSnat = 5,
      dynamicDnat = 6,
   };

   constexpr NatHwKey() = default;
   constexpr NatHwKey(NatKeyType keyType, Lumet::IpAndPort srcIpAndPortOld,
                      Lumet::IpAndPort srcIpAndPortNew, Lumet::IpAndPort dstIpAndPortOld,
                      Lumet::IpAndPort dstIpAndPortNew, NatAclId aclId = NatAclId(),
                      bool reverse = false, U8 dynProto = 0, U16 groupId = 0, U32 filterAddrId = 0)
       : keyType_(keyType),
         srcIpAndPortOld_(srcIpAndPortOld),
         srcIpAndPortNew_(srcIpAndPortNew),
         dstIpAndPortOld_(dstIpAndPortOld),
         dstIpAndPortNew_(dstIpAndPortNew),
         aclId_(aclId),
         reverse_(reverse),
         dynProto_(dynProto),
         groupId_(groupId),
         filterAddrId_(filterAddrId) {}

   NatKeyType keyType() const { return keyType_; }
   Lumet::IpAndPort srcIpAndPortOld() const { return srcIpAndPortOld_; }
   Lumet::IpAndPort srcIpAndPortNew() const { return srcIpAndPortNew_; }
   Lumet::IpAndPort dstIpAndPortOld() const { return dstIpAndPortOld_; }
   Lumet::IpAndPort dstIpAndPortNew() const { return dstIpAndPortNew_; }
   NatAclId aclId() const { return aclId_; }
   bool reverse() const { return reverse_; }
   U8 dynProto() const { return dynProto_; }
   U16 groupId() const { return groupId_; }
   // Position of the filter address within its connection, from 0.
   U32 filterAddrId() const { return filterAddrId_; }

   void keyTypeIs(NatKeyType v) { keyType_ = v; }
   void srcIpAndPortOldIs(Lumet::IpAndPort v) { srcIpAndPortOld_ = v; }
   void srcIpAndPortNewIs(Lumet::IpAndPort v) { srcIpAndPortNew_ = v; }
   void dstIpAndPortOldIs(Lumet::IpAndPort v) { dstIpAndPortOld_ = v; }
   void dstIpAndPortNewIs(Lumet::IpAndPort v) { dstIpAndPortNew_ = v; }
   void aclIdIs(NatAclId v) { aclId_ = v; }
   void reverseIs(bool v) { reverse_ = v; }
   void dynProtoIs(U8 v) { dynProto_ = v; }
   void groupIdIs(U16 v) { groupId_ = v; }
   void filterAddrIdIs(U32 v) { filterAddrId_ = v; }

   // Kinds of translation.
   bool isStaticNat() const { return keyType_ == staticSnat || keyType_ == staticDnat; }
   bool isStaticSrcNat() const { return keyType_ == staticSnat; }
   bool isStaticDestNat() const { return keyType_ == staticDnat; }
   bool isDynamicNat() const { return keyType_ == dynamicSnat || keyType_ == dynamicDnat; }
   bool isDynamicSrcNat() const { return keyType_ == dynamicSnat; }
   bool isDynamicDstNat() const { return keyType_ == dynamicDnat; }
   bool isTwiceNat() const { return keyType_ == twiceNatForward || keyType_ == twiceNatReverse; }
   bool isTwiceNatForward() const { return keyType_ == twiceNatForward; }
   bool isTwiceNatReverse() const { return keyType_ == twiceNatReverse; }
   bool isSourceNat() const { return keyType_ == staticSnat || keyType_ == dynamicSnat; }
   bool isDestinationNat() const { return keyType_ == staticDnat || keyType_ == dynamicDnat; }
   // A key of a known type whose four ports are all 0 translates addresses
   // only; any port makes it a port translation (NAPT).
   bool isAddrOnlyNat() const;
   bool isStaticNapt() const { return isStaticNat() && !isAddrOnlyNat(); }
   bool isDynamicNapt() const { return isDynamicNat() && !isAddrOnlyNat(); }
   bool isTwiceNapt() const { return isTwiceNat() && !isAddrOnlyNat(); }

   // False only for the default key.
   explicit operator bool() const { return !(*this == NatHwKey()); }

   // All fields, filterAddrId included.
   friend bool operator==(NatHwKey const& a, NatHwKey const& b);
   // keyType, the four addresses (address, then port), aclId, reverse,
   // dynProto, groupId. filterAddrId takes no part: keys that differ only in
   // it are unequal yet neither is less. Do not key an ordered collection
   // that must hold several filter positions of one connection on this order.
   friend bool operator<(NatHwKey const& a, NatHwKey const& b);

   // Running mix over keyType, the address-and-port hash of each address,
   // aclId, reverse, dynProto, groupId, filterAddrId, from `seed`. Tables
   // stored in shared memory keep hashes made by this function: it is part of
   // their format.
   U32 hash(U32 seed) const;

   // "type: staticSnat, old sip: 10.0.0.1:0, new sip: 1.1.1.1:0, aclId: 3"
   std::string stringValue() const;
   // For the operator's log: "type: Static SNAT, old SIP: 10.0.0.1:0, new SIP:
   // 1.1.1.1:0, new DIP: 0.0.0.0:0" (new DIP is always present).
   std::string stringLogValue() const;
   // "Value('Ulo::NatHwKey', ** {'keyType': staticSnat, ...})"
   std::string genericText() const;

   static char const* keyTypeName(NatKeyType type);      // "staticSnat"
   static char const* keyTypeLogWord(NatKeyType type);   // "Static SNAT"

 private:
   NatKeyType keyType_ = unknown;
   Lumet::IpAndPort srcIpAndPortOld_;
   Lumet::IpAndPort srcIpAndPortNew_;
   Lumet::IpAndPort dstIpAndPortOld_;
   Lumet::IpAndPort dstIpAndPortNew_;
   NatAclId aclId_;
   bool reverse_ = false;
   U8 dynProto_ = 0;
   U16 groupId_ = 0;
   U32 filterAddrId_ = 0;

   friend struct NatHwLayout;
};

// Orders keys by every field, filterAddrId included: sibling entries of one
// connection are told apart, so that each can have a status of its own.
struct NatHwKeyFullLess {
   bool operator()(NatHwKey const& a, NatHwKey const& b) const {
      if (a < b) return true;
      if (b < a) return false;
      return a.filterAddrId() < b.filterAddrId();
   }
};

// ---------------------------------------------------------------------------
// Array indices

// A range-checked index, 0..63, into one of NatHwData's arrays. Each array
// has an index type of its own, so that an index of one is not taken for the
// other; `Tag::rangeText` is the text of its range error.
template <typename Tag>
class NatArrayIndex {
 public:
   static constexpr U32 min = 0;
   static constexpr U32 max = 63;
   // Raises Vor::RangeException with Tag::rangeText past max.
   NatArrayIndex(U32 value) : value_(value) {
      if (value > max) Vor::throwRangeException(Tag::rangeText);
   }
   U32 value() const { return value_; }

 private:
   U32 value_;
};

struct NatVlanIdIndexTag {
   static constexpr char const* rangeText =
      "NatVlanIdIndex::value < NatVlanIdIndex::min or > NatVlanIdIndex::max not allowed";
};
struct NatEgressIntfIndexTag {
   static constexpr char const* rangeText =
      "NatEgressIntfIndex::value < NatEgressIntfIndex::min or > NatEgressIntfIndex::max not allowed";
};

// Index into NatHwData::vlanId.
using NatVlanIdIndex = NatArrayIndex<NatVlanIdIndexTag>;
// Index into NatHwData::egressIntf.
using NatEgressIntfIndex = NatArrayIndex<NatEgressIntfIndexTag>;

// ---------------------------------------------------------------------------
// NatHwData

class NatHwData {
 public:
   using VlanArray = Vorn::PodArray<U16, NatVlanIdIndex, 64>;
   using EgressIntfArray = Vorn::PodArray<Lumet::IntfId, NatEgressIntfIndex, 64>;

   NatHwData() = default;
   NatHwData(U8 protocol, Lumet::IpAddrWithFullMask filterAddr, U32 numFilterAddrs,
             U64 const& nextHopId, bool staticAclSharing, U32 mcastGroupId, bool multicast)
       : protocol_(protocol),
         filterAddr_(filterAddr),
         numFilterAddrs_(numFilterAddrs),
         nextHopId_(nextHopId),
         staticAclSharing_(staticAclSharing),
         mcastGroupId_(mcastGroupId),
         multicast_(multicast) {}

   U8 protocol() const { return protocol_; }
   Lumet::IpAddrWithFullMask filterAddr() const { return filterAddr_; }
   U32 numFilterAddrs() const { return numFilterAddrs_; }
   U64 nextHopId() const { return nextHopId_; }
   bool staticAclSharing() const { return staticAclSharing_; }
   U32 mcastGroupId() const { return mcastGroupId_; }
   bool multicast() const { return multicast_; }

   void protocolIs(U8 v) { protocol_ = v; }
   void filterAddrIs(Lumet::IpAddrWithFullMask v) { filterAddr_ = v; }
   void numFilterAddrsIs(U32 v) { numFilterAddrs_ = v; }
   void nextHopIdIs(U64 v) { nextHopId_ = v; }
   void staticAclSharingIs(bool v) { staticAclSharing_ = v; }
   void mcastGroupIdIs(U32 v) { mcastGroupId_ = v; }
   void multicastIs(bool v) { multicast_ = v; }

   // VLANs. vlanIds() is one more than the highest index written (see
   // Vorn::PodArray): vlanIdIs(5, v) on an empty array gives 6. vlanIdDel of
   // the last index lowers the count past trailing zero cells; of a middle
   // index, it leaves a zero cell. An index over 63 raises the
   // NatVlanIdIndex range exception.
   U16 vlanId(NatVlanIdIndex index) const { return vlanId_[index]; }
   U32 vlanIds() const { return vlanId_.count(); }
   void vlanIdIs(NatVlanIdIndex index, U16 value) { vlanId_.valueIs(index, value); }
   void vlanIdDel(NatVlanIdIndex index) { vlanId_.valueDel(index); }
   void vlanIdDelAll() { vlanId_.valueDelAll(); }

   // Egress interfaces of a multicast entry, with the same rules.
   Lumet::IntfId egressIntf(NatEgressIntfIndex index) const { return egressIntf_[index]; }
   U32 egressIntfs() const { return egressIntf_.count(); }
   void egressIntfIs(NatEgressIntfIndex index, Lumet::IntfId value) { egressIntf_.valueIs(index, value); }
   void egressIntfDel(NatEgressIntfIndex index) { egressIntf_.valueDel(index); }
   void egressIntfDelAll() { egressIntf_.valueDelAll(); }

   // All fields; the arrays compare their counts and the cells below them, so
   // the same VLANs in another order are different data.
   friend bool operator==(NatHwData const& a, NatHwData const& b);

   // "vlan: [ 10 20 ] proto: 6 faddr: 10.0.0.0/8 #faddrs: 2 nhid: 7"; fields
   // after the VLANs appear only when not zero, egress interfaces only on a
   // multicast entry.
   std::string stringValue() const;
   // "Value('Ulo::NatHwData', ** {'protocol': 6, ..., 'vlanId': [10, 20], ...})"
   std::string genericText() const;
   // The data holds arrays and cannot be rebuilt from its text: calling this
   // is a program error and ends the process.
   [[noreturn]] static NatHwData fromGenericText(std::string_view text);

 private:
   U8 protocol_ = 0;
   Lumet::IpAddrWithFullMask filterAddr_;
   U32 numFilterAddrs_ = 0;
   U64 nextHopId_ = 0;
   VlanArray vlanId_;
   bool staticAclSharing_ = false;
   U32 mcastGroupId_ = 0;
   bool multicast_ = false;
   EgressIntfArray egressIntf_;

   friend struct NatHwLayout;
};

// ---------------------------------------------------------------------------
// NatHwShadowEntry

class NatHwShadowEntry {
 public:
   // Where the entry stands with hardware. A connection with several filter
   // addresses keeps its state on the entry with filterAddrId 0 only; the
   // siblings stay clean.
   enum Dirty : U32 {
      clean = 0,      // hardware holds the entry as written
      setting = 1,    // on its way into hardware
      clearing = 2,   // on its way out
   };

   NatHwShadowEntry() = default;
   NatHwShadowEntry(NatHwKey const& key, NatHwData const& data, Dirty dirty = clean)
       : key_(key), data_(data), dirty_(dirty) {}

   NatHwKey const& key() const { return key_; }
   NatHwData const& data() const { return data_; }
   Dirty dirty() const { return dirty_; }
   void keyIs(NatHwKey const& v) { key_ = v; }
   void dataIs(NatHwData const& v) { data_ = v; }
   void dirtyIs(Dirty v) { dirty_ = v; }

   friend bool operator==(NatHwShadowEntry const& a, NatHwShadowEntry const& b) {
      return a.key_ == b.key_ && a.data_ == b.data_ && a.dirty_ == b.dirty_;
   }

   static char const* dirtyName(Dirty dirty);   // "clean", "setting", "clearing"
   // "Value('Ulo::NatHwShadowEntry', ** {'key': <key>, 'data': <data>,
   // 'dirty': clean})", key and data in their generic texts.
   std::string genericText() const;
   std::string stringValue() const { return genericText(); }

 private:
   NatHwKey key_;
   NatHwData data_;
   Dirty dirty_ = clean;

   friend struct NatHwLayout;
};

// The shared-memory layout, proved at compile time.
struct NatHwLayout {
   static_assert(sizeof(NatHwKey::NatKeyType) == 4);
   static_assert(sizeof(NatHwKey) == 40);
   static_assert(offsetof(NatHwKey, keyType_) == 0);
   static_assert(offsetof(NatHwKey, srcIpAndPortOld_) == 4);
   static_assert(offsetof(NatHwKey, srcIpAndPortNew_) == 10);
   static_assert(offsetof(NatHwKey, dstIpAndPortOld_) == 16);
   static_assert(offsetof(NatHwKey, dstIpAndPortNew_) == 22);
   static_assert(offsetof(NatHwKey, aclId_) == 28);
   static_assert(offsetof(NatHwKey, reverse_) == 32);
   static_assert(offsetof(NatHwKey, dynProto_) == 33);
   static_assert(offsetof(NatHwKey, groupId_) == 34);
   static_assert(offsetof(NatHwKey, filterAddrId_) == 36);

   static_assert(sizeof(NatHwData) == 688);
   static_assert(offsetof(NatHwData, protocol_) == 0);
   static_assert(offsetof(NatHwData, filterAddr_) == 4);
   static_assert(offsetof(NatHwData, numFilterAddrs_) == 12);
   static_assert(offsetof(NatHwData, nextHopId_) == 16);
   static_assert(offsetof(NatHwData, vlanId_) == 24);
   static_assert(sizeof(NatHwData::VlanArray) == 4 + 64 * 2);
   static_assert(offsetof(NatHwData, staticAclSharing_) == 156);
   static_assert(offsetof(NatHwData, mcastGroupId_) == 160);
   static_assert(offsetof(NatHwData, multicast_) == 164);
   static_assert(offsetof(NatHwData, egressIntf_) == 168);
   static_assert(sizeof(NatHwData::EgressIntfArray) == 8 + 64 * 8);

   static_assert(sizeof(NatHwShadowEntry::Dirty) == 4);
   static_assert(sizeof(NatHwShadowEntry) == 736);
   static_assert(offsetof(NatHwShadowEntry, key_) == 0);
   static_assert(offsetof(NatHwShadowEntry, data_) == 40);
   static_assert(offsetof(NatHwShadowEntry, dirty_) == 728);

   static_assert(std::is_trivially_copyable_v<NatHwKey>);
   static_assert(std::is_trivially_copyable_v<NatHwData>);
   static_assert(std::is_trivially_copyable_v<NatHwShadowEntry>);
   static_assert(std::is_standard_layout_v<NatHwKey>);
   static_assert(std::is_standard_layout_v<NatHwData>);
   static_assert(std::is_standard_layout_v<NatHwShadowEntry>);
};

// ---------------------------------------------------------------------------
// Next hops and multicast state read while filling NatHwData


// The value for NatHwData::nextHopId: the id of a NatNextHopId, 0 for null
// or for any other kind of next hop.
U64 natHwNextHopId(Vor::Ptr<NatNextHopInfo const> const& nextHop);

// Writes the interfaces of `oifSet` into data's egress array at 0, 1, 2, ...
// after clearing it. The 65th interface raises the NatEgressIntfIndex range
// exception.
void doPopulateNatHwDataEgrIntfArray(NatMrouteOifSet const& oifSet, NatHwData& data);
// Clears to's egress array and copies from's cells into it.
void copyNatHwDataEgrIntfArray(NatHwData const& from, NatHwData& to);

} // namespace Ulo

template <>
struct std::hash<Ulo::NatHwKey> {
   std::size_t operator()(Ulo::NatHwKey const& key) const noexcept { return key.hash(0); }
};
