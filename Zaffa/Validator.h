#pragma once
// The check that decides whether a table's files can be trusted.
//
// ValidatorCore proves, from the mapped files alone, that the slot file, the
// bucket file and the notification queue agree: every chain is in range,
// sorted, free of cycles and duplicates and holds only stable OCCUPIED slots;
// the free list reaches every other slot; every occupied slot has exactly one
// live notification; no tombstone is active outside a shrink. It works on
// raw slots, so that the command-line tool can run it on tables of any value
// type; Validator<Key, Value> adds the checks that need the key type (the
// stored rhash is the key's hash, equal rhash is ordered by key).
//
// The first fault ends the walk; message() tells it, with the texts that
// operators and tests look for. Nothing is ever repaired here.
//
// Thread safety: the files must not change during a run: the writer runs it
// on its own thread with the owner lock held, the tool on a table whose
// writer is idle or gone.

#include "Zaffa/BucketWriter.h"
#include "Zaffa/SlotTable.h"
#include "Zaffa/platform/Trevine.h"

#include <functional>
#include <string>
#include <vector>

namespace Zaffa {

struct TableView {
   SlotMemory slots;
   std::size_t slotFileSize = 0;
   // The constant fields a header must have; null checks the header against
   // itself.
   SlotTableHeader const* expected = nullptr;
   ZaffaCore::BucketView<SlotLink> buckets;
   std::size_t bucketFileSize = 0;
   Trevine::TrevineView trevine;
   std::size_t trevineFileSize = 0;
   // Optional, with the key type: is `rhash` the reversed hash of the key in
   // `value` under `seed`? And the order of two keys (<0, 0, >0).
   std::function<bool(char const* value, U32 rhash, U32 seed)> keyMatchesRhash;
   std::function<int(char const* a, char const* b)> compareKeys;
};

class ValidatorCore {
 public:
   explicit ValidatorCore(TableView view) : view_(std::move(view)) {}

   // Runs every check. Returns false with the first fault in message(); a
   // fault never escapes as an exception.
   bool validate(U32 fenix);
   std::string const& message() const { return message_; }
   U32 occupiedSeen() const { return occupied_; }
   U32 freeSeen() const { return free_; }

 protected:
   // Each raises Jorro::CorruptionDetectedException with the fault.
   void doValidate(U32 fenix);
   void walkOccupiedSlots();
   void markOccupied(U32 slot);
   void walkFreeSlots();
   void walkCorral();
   void checkOccupiedNotifications();

 private:
   TableView view_;
   U32 numSlots_ = 0;
   U32 occupied_ = 0;
   U32 free_ = 0;
   std::vector<bool> slotMarks_;
   std::vector<bool> posMarks_;
   std::string message_;
};

} // namespace Zaffa
