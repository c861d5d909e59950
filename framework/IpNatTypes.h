#pragma once
// Value records of the switch's NAT configuration and status (namespace
// Ip::Nat) that the NAT engine reads and writes: static and twice
// connections, dynamic rule keys and trap filters, dynamic connections and
// their hardware records, packet counters, and the multicast translation
// mode.
//
// The entities that hold these (interface status, hardware status, ...) are
// elsewhere; these are the plain values stored in their collections.
//
// Thread safety: plain values; const operations may run concurrently.
// McastTranslationMode is an entity and follows the one-thread rule.
//
// Invariants:
//  1. The default of each record is its "absent" value: a lookup of a missing
//     key in a status collection yields it (a default NatStaticConnection has
//     target source_, protocol 0, vlan 0 and no filter address).
//  2. DynamicConnectionKey, DynamicConnection and DynamicConnectionHw are
//     trivially copyable: they live in shared-memory tables.

#include <set>
#include <string>
#include <type_traits>

#include "framework/AclPortSpec.h"
#include "framework/LumetConnTuple.h"
#include "framework/LumetIntfId.h"
#include "framework/LumetIpAddr.h"
#include "framework/VorEntity.h"
#include "framework/VorString.h"

namespace Ip::Nat {

using Vor::U16;
using Vor::U32;
using Vor::U64;
using Vor::U8;

// Which side of a connection is translated.
enum NatTarget : U8 { source_ = 0, destination = 1 };
char const* natTargetName(NatTarget target);   // "source", "destination"

// ---------------------------------------------------------------------------
// Static connections

class StaticKey {
 public:
   enum Table : U8 { ingress = 0, egress = 1 };

   StaticKey() = default;
   StaticKey(Lumet::IpAndPort localAddress, Vor::String aclName = Vor::String(), Table table = ingress)
       : localAddress_(localAddress), aclName_(std::move(aclName)), table_(table) {}

   // The untranslated address and port.
   Lumet::IpAndPort localAddress() const { return localAddress_; }
   // The access list selecting the traffic; empty for a plain rule.
   Vor::String const& aclName() const { return aclName_; }
   Table table() const { return table_; }

   friend bool operator==(StaticKey const& a, StaticKey const& b) {
      return a.localAddress_ == b.localAddress_ && a.aclName_ == b.aclName_ && a.table_ == b.table_;
   }
   // localAddress, then aclName, then table.
   friend bool operator<(StaticKey const& a, StaticKey const& b);

   // "10.0.0.1:80" then " acl <name>" when there is one, then " ingress" or
   // " egress": "10.0.0.1:80 acl web egress".
   std::string stringValue() const;
   U32 hash(U32 seed = 0) const;

 private:
   Lumet::IpAndPort localAddress_;
   Vor::String aclName_;
   Table table_ = ingress;
};

class NatStaticConnection {
 public:
   // Ordered so that filter positions (0, 1, ...) are stable from one walk to
   // the next.
   using FilterAddressSet = std::set<Lumet::IpAddrWithFullMask>;

   NatStaticConnection() = default;
   NatStaticConnection(StaticKey key, Lumet::IpAndPort globalAddress, NatTarget target, U8 protocol,
                       U16 vlanId, bool forward)
       : key_(std::move(key)),
         globalAddress_(globalAddress),
         target_(target),
         protocol_(protocol),
         vlanId_(vlanId),
         forward_(forward) {}

   StaticKey const& key() const { return key_; }
   Lumet::IpAndPort globalAddress() const { return globalAddress_; }
   NatTarget target() const { return target_; }
   U8 protocol() const { return protocol_; }   // 0 for any
   // The VLAN the rule is programmed on; the profile on a profile interface.
   U16 vlanId() const { return vlanId_; }
   bool forward() const { return forward_; }

   FilterAddressSet const& filterAddress() const { return filterAddress_; }
   bool filterAddressHas(Lumet::IpAddrWithFullMask const& addr) const { return filterAddress_.count(addr) != 0; }
   // Adds `addr` when `present`, removes it otherwise.
   void filterAddressIs(Lumet::IpAddrWithFullMask const& addr, bool present);
   void filterAddressDel(Lumet::IpAddrWithFullMask const& addr) { filterAddress_.erase(addr); }
   void filterAddressDelAll() { filterAddress_.clear(); }
   U32 filterAddresss() const { return static_cast<U32>(filterAddress_.size()); }

   friend bool operator==(NatStaticConnection const& a, NatStaticConnection const& b) = default;

   std::string stringValue() const;

 private:
   StaticKey key_;
   Lumet::IpAndPort globalAddress_;
   NatTarget target_ = source_;
   U8 protocol_ = 0;
   U16 vlanId_ = 0;
   bool forward_ = false;
   FilterAddressSet filterAddress_;
};

// ---------------------------------------------------------------------------
// Twice NAT

// One twice rule per group. All four addresses together describe the
// translation; one of the two old addresses is zero on a rule that a dynamic
// connection completes.
class NatTwiceConnection {
 public:
   NatTwiceConnection() = default;
   NatTwiceConnection(U16 group, Lumet::IpAndPort srcOld, Lumet::IpAndPort dstOld,
                      Lumet::IpAndPort srcNew, Lumet::IpAndPort dstNew, U8 protocol, U16 vlanId)
       : group_(group), srcOld_(srcOld), dstOld_(dstOld), srcNew_(srcNew), dstNew_(dstNew),
         protocol_(protocol), vlanId_(vlanId) {}

   U16 group() const { return group_; }
   Lumet::IpAndPort srcOld() const { return srcOld_; }
   Lumet::IpAndPort dstOld() const { return dstOld_; }
   Lumet::IpAndPort srcNew() const { return srcNew_; }
   Lumet::IpAndPort dstNew() const { return dstNew_; }
   U8 protocol() const { return protocol_; }
   U16 vlanId() const { return vlanId_; }

   friend bool operator==(NatTwiceConnection const& a, NatTwiceConnection const& b) = default;

   // "group 3 src 10.0.0.1:0 -> 1.1.1.1:0 dst 20.0.0.1:0 -> 2.2.2.2:0
   // proto 6 vlan 10"
   std::string stringValue() const;

 private:
   U16 group_ = 0;
   Lumet::IpAndPort srcOld_;
   Lumet::IpAndPort dstOld_;
   Lumet::IpAndPort srcNew_;
   Lumet::IpAndPort dstNew_;
   U8 protocol_ = 0;
   U16 vlanId_ = 0;
};

// The translated pair of one twice NAT flow in hardware.
class HwNatTwiceAddr {
 public:
   HwNatTwiceAddr() = default;
   HwNatTwiceAddr(Lumet::IpAndPort srcNew, Lumet::IpAndPort dstNew) : srcNew_(srcNew), dstNew_(dstNew) {}

   Lumet::IpAndPort srcNew() const { return srcNew_; }
   Lumet::IpAndPort dstNew() const { return dstNew_; }

   friend bool operator==(HwNatTwiceAddr const& a, HwNatTwiceAddr const& b) = default;

   // "srcNew: 1.1.1.1:0 dstNew: 2.2.2.2:0"
   std::string stringValue() const;

 private:
   Lumet::IpAndPort srcNew_;
   Lumet::IpAndPort dstNew_;
};

// ---------------------------------------------------------------------------
// Dynamic rules and trap filters

class DynamicKey {
 public:
   DynamicKey() = default;
   DynamicKey(Vor::String aclName, U16 group) : aclName_(std::move(aclName)), group_(group) {}

   Vor::String const& aclName() const { return aclName_; }
   U16 group() const { return group_; }

   friend bool operator==(DynamicKey const& a, DynamicKey const& b) {
      return a.aclName_ == b.aclName_ && a.group_ == b.group_;
   }
   // aclName, then group.
   friend bool operator<(DynamicKey const& a, DynamicKey const& b) {
      if (!(a.aclName_ == b.aclName_)) return a.aclName_ < b.aclName_;
      return a.group_ < b.group_;
   }

   // "acl <name> group <n>"
   std::string stringValue() const;
   U32 hash(U32 seed = 0) const { return Vor::hashFinish(Vor::hashMix(aclName_.hash(seed), group_)); }

 private:
   Vor::String aclName_;
   U16 group_ = 0;
};

// The match fields of one filter of a dynamic rule's trap.
class NatTrapFilter {
 public:
   NatTrapFilter() = default;
   NatTrapFilter(U32 seqNum, Lumet::IpAddrWithFullMask srcIpAndMask, Lumet::IpAddrWithFullMask dstIpAndMask,
                 bool deny = false, bool filterFlag = false, U16 srcPort = 0, U16 dstPort = 0, U8 proto = 0,
                 Acl::PortSpec srcPortSpec = Acl::PortSpec(), Acl::PortSpec dstPortSpec = Acl::PortSpec())
       : seqNum_(seqNum), srcIpAndMask_(srcIpAndMask), dstIpAndMask_(dstIpAndMask), deny_(deny),
         filterFlag_(filterFlag), srcPort_(srcPort), dstPort_(dstPort), proto_(proto),
         srcPortSpec_(std::move(srcPortSpec)), dstPortSpec_(std::move(dstPortSpec)) {}

   // Order of the filter within its rule.
   U32 seqNum() const { return seqNum_; }
   Lumet::IpAddrWithFullMask srcIpAndMask() const { return srcIpAndMask_; }
   Lumet::IpAddrWithFullMask dstIpAndMask() const { return dstIpAndMask_; }
   bool deny() const { return deny_; }             // do not trap what matches
   bool filterFlag() const { return filterFlag_; } // carried to hardware as is
   U16 srcPort() const { return srcPort_; }        // service port, 0 when none
   U16 dstPort() const { return dstPort_; }
   U8 proto() const { return proto_; }             // 0 for any
   Acl::PortSpec const& srcPortSpec() const { return srcPortSpec_; }
   Acl::PortSpec const& dstPortSpec() const { return dstPortSpec_; }

   friend bool operator==(NatTrapFilter const& a, NatTrapFilter const& b) = default;
   // seqNum first, so that a set of filters walks them in rule order; the
   // other fields only break ties.
   friend bool operator<(NatTrapFilter const& a, NatTrapFilter const& b);

   // "SeqNum: 1, src: 10.0.0.0/8, dst: 0.0.0.0/0, proto: 6"
   std::string stringValue() const;

 private:
   U32 seqNum_ = 0;
   Lumet::IpAddrWithFullMask srcIpAndMask_;
   Lumet::IpAddrWithFullMask dstIpAndMask_;
   bool deny_ = false;
   bool filterFlag_ = false;
   U16 srcPort_ = 0;
   U16 dstPort_ = 0;
   U8 proto_ = 0;
   Acl::PortSpec srcPortSpec_;
   Acl::PortSpec dstPortSpec_;
};

// ---------------------------------------------------------------------------
// Dynamic connections

class DynamicConnectionKey {
 public:
   constexpr DynamicConnectionKey() = default;
   constexpr DynamicConnectionKey(Lumet::IntfId intfId, Lumet::ConnTuple connTuple)
       : intfId_(intfId), connTuple_(connTuple) {}

   constexpr Lumet::IntfId intfId() const { return intfId_; }
   constexpr Lumet::ConnTuple connTuple() const { return connTuple_; }

   friend constexpr bool operator==(DynamicConnectionKey const& a, DynamicConnectionKey const& b) {
      return a.intfId_ == b.intfId_ && a.connTuple_ == b.connTuple_;
   }
   // intfId, then connTuple.
   friend constexpr bool operator<(DynamicConnectionKey const& a, DynamicConnectionKey const& b) {
      if (!(a.intfId_ == b.intfId_)) return a.intfId_ < b.intfId_;
      return a.connTuple_ < b.connTuple_;
   }

   // "Ethernet1 10.0.0.1:1024 -> 20.0.0.1:80 proto 6"
   std::string stringValue() const { return intfId_.stringValue() + " " + connTuple_.stringValue(); }
   U32 hash(U32 seed = 0) const { return connTuple_.hash(intfId_.hash(seed)); }

 private:
   Lumet::IntfId intfId_;
   Lumet::ConnTuple connTuple_;
};

// A connection as connection tracking reports it.
class DynamicConnection {
 public:
   DynamicConnection() = default;
   DynamicConnection(DynamicConnectionKey const& key, Lumet::IpAndPort globalAddress, U16 connMark = 0)
       : key_(key), globalAddress_(globalAddress), connMark_(connMark) {}

   DynamicConnectionKey const& key() const { return key_; }
   Lumet::IpAndPort globalAddress() const { return globalAddress_; }
   // Names a twice group through the status' group table; 0 for none.
   U16 connMark() const { return connMark_; }
   NatTarget target() const { return (flags_ & destinationFlag) ? destination : source_; }
   bool fullCone() const { return flags_ & fullConeFlag; }
   bool addrOnly() const { return flags_ & addrOnlyFlag; }
   bool twiceNat() const { return flags_ & twiceNatFlag; }

   void globalAddressIs(Lumet::IpAndPort v) { globalAddress_ = v; }
   void connMarkIs(U16 v) { connMark_ = v; }
   void targetIs(NatTarget v) { flagIs(destinationFlag, v == destination); }
   void fullConeIs(bool v) { flagIs(fullConeFlag, v); }
   void addrOnlyIs(bool v) { flagIs(addrOnlyFlag, v); }
   void twiceNatIs(bool v) { flagIs(twiceNatFlag, v); }

   friend bool operator==(DynamicConnection const& a, DynamicConnection const& b) = default;

   std::string stringValue() const;

 private:
   enum Flag : U8 { destinationFlag = 1, fullConeFlag = 2, addrOnlyFlag = 4, twiceNatFlag = 8 };
   void flagIs(Flag f, bool on) { flags_ = on ? U8(flags_ | f) : U8(flags_ & ~f); }

   DynamicConnectionKey key_;
   Lumet::IpAndPort globalAddress_;
   U16 connMark_ = 0;
   U8 flags_ = 0;
};

// A dynamic connection as this engine put it in hardware.
class DynamicConnectionHw {
 public:
   DynamicConnectionHw() = default;
   DynamicConnectionHw(DynamicConnectionKey const& key, Lumet::IpAndPort globalAddress,
                       double lastChangedTime = 0.0)
       : key_(key), globalAddress_(globalAddress), lastChangedTime_(lastChangedTime) {}

   DynamicConnectionKey const& key() const { return key_; }
   Lumet::IpAndPort globalAddress() const { return globalAddress_; }
   // Seconds of the clock at the last change of the entry.
   double lastChangedTime() const { return lastChangedTime_; }
   NatTarget target() const { return target_; }
   bool fullCone() const { return fullCone_; }
   bool addrOnly() const { return addrOnly_; }

   void globalAddressIs(Lumet::IpAndPort v) { globalAddress_ = v; }
   void lastChangedTimeIs(double v) { lastChangedTime_ = v; }
   void targetIs(NatTarget v) { target_ = v; }
   void fullConeIs(bool v) { fullCone_ = v; }
   void addrOnlyIs(bool v) { addrOnly_ = v; }

   friend bool operator==(DynamicConnectionHw const& a, DynamicConnectionHw const& b) = default;

   std::string stringValue() const;

 private:
   DynamicConnectionKey key_;
   Lumet::IpAndPort globalAddress_;
   double lastChangedTime_ = 0.0;
   NatTarget target_ = source_;
   bool fullCone_ = false;
   bool addrOnly_ = false;
};

static_assert(std::is_trivially_copyable_v<DynamicConnectionKey>);
static_assert(std::is_trivially_copyable_v<DynamicConnection>);
static_assert(std::is_trivially_copyable_v<DynamicConnectionHw>);

// ---------------------------------------------------------------------------
// Counters and modes

class NatCounter {
 public:
   NatCounter() = default;
   NatCounter(U64 pktCount, U64 pktCountReply) : pktCount_(pktCount), pktCountReply_(pktCountReply) {}

   U64 pktCount() const { return pktCount_; }
   U64 pktCountReply() const { return pktCountReply_; }
   void pktCountIs(U64 v) { pktCount_ = v; }
   void pktCountReplyIs(U64 v) { pktCountReply_ = v; }
   void pktCountInc(U64 n) { pktCount_ += n; }
   void pktCountReplyInc(U64 n) { pktCountReply_ += n; }

   friend bool operator==(NatCounter const& a, NatCounter const& b) = default;

   // "pktCount: 5 pktCountReply: 3"
   std::string stringValue() const;

 private:
   U64 pktCount_ = 0;
   U64 pktCountReply_ = 0;
};

// How many kinds of multicast translation the platform is set up for. A
// change means every twice connection is programmed again, so it is watched
// as an entity.
class McastTranslationMode : public Vor::Entity {
 public:
   enum Attribute : Vor::AttributeId { numTranslationTypesAttribute = 1 };

   explicit McastTranslationMode(Vor::String name = Vor::String()) : Vor::Entity(std::move(name)) {}

   U32 numTranslationTypes() const { return numTranslationTypes_; }
   // Notifies only on a change.
   void numTranslationTypesIs(U32 v) { scalarIs(numTranslationTypes_, v, numTranslationTypesAttribute); }

 private:
   U32 numTranslationTypes_ = 0;
};

} // namespace Ip::Nat
