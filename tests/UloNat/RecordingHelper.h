#pragma once
// RecordingHelper: a hardware helper for tests that records the operations
// a test chooses to watch and answers them as the test says.
//
// Each recorded operation has a Mode: left at the base class's default
// (`base`), forwarded to the base and then claimed a success
// (`forwardToBase`), or answered true (`succeed`) or false (`fail`) after
// being recorded in `calls`. The composite static operations of the base
// class (addStaticIpTranslations and the rest) are not overridden: they run
// as on any platform and reach the recorded single translations, so a test
// of a state machine sees the same helper calls a platform would.
//
// Commits: immediateCommit() answers `immediate`; commitHwTranslations() is
// recorded as "commit" and answers per `commit` (base: false), but false for
// the next `failNextCommits` commits. A commit that always fails makes a
// batch-committing engine re-issue its deletes for ever: tests that run the
// scheduler until idle fail a given number of commits instead.

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "UloNat/UloHelperNat.h"

namespace UloTest {

using Ip::Nat::NatTarget;
using Ip::Nat::StaticKey;
using Lumet::IpAddrWithFullMask;
using Lumet::IpAndPort;
using UloHelper::UloHelperNat;
using Vor::U16;
using Vor::U32;
using Vor::U8;

// A platform that overrides the operations chosen by the test and records
// every call of them. Operations not chosen stay at the base defaults, or
// are overridden by a forward to the base (which must count as default).
class RecordingHelper : public UloHelperNat {
 public:
   enum Mode { base, forwardToBase, succeed, fail };

   // Every static translation and commit answered as `mode`.
   void staticTranslationsAre(Mode mode) {
      addSrc = addDst = updSrc = updDst = delSrc = delDst = mode;
   }

   RecordingHelper() : UloHelperNat("recording") {}

   Mode addSrc = base, addDst = base, updSrc = base, updDst = base, delSrc = base, delDst = base;
   Mode trap = base, protoTrap = base, service = base, addrOnlyAcl = base;
   Mode commit = base;
   // The next this-many commits fail, whatever `commit` says.
   int failNextCommits = 0;
   bool immediate = false;
   std::vector<std::string> calls;
   // Runs inside the first source add, to change collections mid-walk.
   std::function<void(IpAddrWithFullMask const&)> onAddSrc;
   std::function<void(U32 seqNum)> onTrap;

   static std::string pair(IpAndPort const& a, IpAndPort const& b) {
      return a.stringValue() + ">" + b.stringValue();
   }

   bool immediateCommit() const override { return immediate; }
   bool commitHwTranslations() override {
      if (commit == base) return UloHelperNat::commitHwTranslations();
      calls.push_back("commit");
      if (failNextCommits > 0) {
         --failNextCommits;
         return false;
      }
      return commit == succeed;
   }

   bool addStaticSrcIpTranslation(IpAndPort const& o, IpAndPort const& n, IpAddrWithFullMask const& f, U8 p,
                                  U16 v, StaticKey const& k, bool fwd, Ulo::VrfId vrf) override {
      if (addSrc == base) return UloHelperNat::addStaticSrcIpTranslation(o, n, f, p, v, k, fwd, vrf);
      calls.push_back("src " + pair(o, n) + " " + f.stringValue() + (fwd ? " fwd" : " rev"));
      if (onAddSrc) onAddSrc(f);
      if (addSrc == forwardToBase) {
         // Runs the base for its bookkeeping, then claims success.
         (void)UloHelperNat::addStaticSrcIpTranslation(o, n, f, p, v, k, fwd, vrf);
         return true;
      }
      return addSrc == succeed;
   }
   bool addStaticDstIpTranslation(IpAndPort const& o, IpAndPort const& n, IpAddrWithFullMask const& f, U8 p,
                                  U16 v, StaticKey const& k, NextHop nh, MulticastInfo m, bool fwd,
                                  Ulo::VrfId vrf) override {
      if (addDst == base) return UloHelperNat::addStaticDstIpTranslation(o, n, f, p, v, k, nh, m, fwd, vrf);
      calls.push_back("dst " + pair(o, n) + " " + f.stringValue() + (fwd ? " fwd" : " rev"));
      return addDst == succeed;
   }
   bool updateStaticSrcIpTranslation(IpAndPort const& o, IpAndPort const& n, IpAddrWithFullMask const& f, U8 p,
                                     U16 v, StaticKey const& k, NextHop nh, MulticastInfo m, bool fwd,
                                     Ulo::VrfId vrf) override {
      if (updSrc == base) return UloHelperNat::updateStaticSrcIpTranslation(o, n, f, p, v, k, nh, m, fwd, vrf);
      calls.push_back("updSrc " + pair(o, n) + " " + f.stringValue());
      return updSrc == succeed;
   }
   bool updateStaticDstIpTranslation(IpAndPort const& o, IpAndPort const& n, IpAddrWithFullMask const& f, U8 p,
                                     U16 v, StaticKey const& k, NextHop nh, MulticastInfo m, bool fwd,
                                     Ulo::VrfId vrf) override {
      if (updDst == base) return UloHelperNat::updateStaticDstIpTranslation(o, n, f, p, v, k, nh, m, fwd, vrf);
      calls.push_back("updDst " + pair(o, n) + " " + f.stringValue());
      return updDst == succeed;
   }
   bool deleteStaticSrcIpTranslation(U16 v, StaticKey const& k, bool fwd, Ulo::VrfId vrf) override {
      if (delSrc == base) return UloHelperNat::deleteStaticSrcIpTranslation(v, k, fwd, vrf);
      calls.push_back(std::string("delSrc") + (fwd ? " fwd" : " rev"));
      return delSrc == succeed;
   }
   bool deleteStaticDstIpTranslation(U16 v, StaticKey const& k, bool fwd, Ulo::VrfId vrf) override {
      if (delDst == base) return UloHelperNat::deleteStaticDstIpTranslation(v, k, fwd, vrf);
      calls.push_back(std::string("delDst") + (fwd ? " fwd" : " rev"));
      return delDst == succeed;
   }
   bool addTrapRule(U32 vlanId, Vor::String acl, U32 ruleId, U32 seqNum, IpAddrWithFullMask const& s,
                    IpAddrWithFullMask const& d, bool ff, bool deny, bool addrOnly, bool fullCone, U16 group,
                    U32 poolId, NatTarget t) override {
      if (trap == base) {
         return UloHelperNat::addTrapRule(vlanId, acl, ruleId, seqNum, s, d, ff, deny, addrOnly, fullCone,
                                          group, poolId, t);
      }
      calls.push_back("trap " + std::to_string(seqNum) + " group " + std::to_string(group));
      if (onTrap) onTrap(seqNum);
      return trap == succeed;
   }
   bool addProtocolTrapRule(U32 vlanId, Vor::String acl, U32 ruleId, U32 seqNum, U8 proto,
                            IpAddrWithFullMask const& s, IpAddrWithFullMask const& d, U16 sp, U16 spm, U16 dp,
                            U16 dpm, bool ff, bool deny, bool addrOnly, bool fullCone, U16 group, U32 poolId,
                            NatTarget t) override {
      if (protoTrap == base) {
         return UloHelperNat::addProtocolTrapRule(vlanId, acl, ruleId, seqNum, proto, s, d, sp, spm, dp, dpm,
                                                  ff, deny, addrOnly, fullCone, group, poolId, t);
      }
      char text[64];
      std::snprintf(text, sizeof text, "proto %u %u/%04x %u/%04x", seqNum, sp, spm, dp, dpm);
      calls.push_back(text);
      return protoTrap == succeed;
   }
   bool addServiceTrapRule(U32 vlanId, Vor::String acl, U32 ruleId, IpAddrWithFullMask const& s, U16 sp,
                           IpAddrWithFullMask const& d, U16 dp, bool ff, bool deny, NatTarget t) override {
      if (service == base) return UloHelperNat::addServiceTrapRule(vlanId, acl, ruleId, s, sp, d, dp, ff, deny, t);
      calls.push_back("service " + std::to_string(sp) + " " + std::to_string(dp));
      return service == succeed;
   }
   bool addAddrOnlyAclRule(U32 vlanId, Vor::String acl, U32 ruleId, IpAddrWithFullMask const& s,
                           IpAddrWithFullMask const& d, bool ff, NatTarget t) override {
      if (addrOnlyAcl == base) return UloHelperNat::addAddrOnlyAclRule(vlanId, acl, ruleId, s, d, ff, t);
      calls.push_back("addrOnlyAcl " + s.stringValue());
      return addrOnlyAcl == succeed;
   }
};

} // namespace UloTest
