// The sync profile: which policy a run follows where the profiles differ.
//
// It is the setting "sync_profile" of the service's settings file, read by
// the worker at each start and handed to the engine as one value. `classic`
// is the default, also for an absent or unknown value. The count of
// downloads in flight, "transfers", is read the same way. Reading and writing
// open the settings file each time; any thread, one at a time.
#pragma once

#include <string>

namespace quillstone {
namespace dropbox {

enum class SyncProfile { kClassic, kSafe };

// kSafe for "safe", kClassic for anything else.
SyncProfile ParseSyncProfile(const std::string& text);
const char* SyncProfileName(SyncProfile profile);

// From the settings file; kClassic when the file or the key is missing.
SyncProfile ReadSyncProfile();
void WriteSyncProfile(SyncProfile profile);

// The transfers a run keeps in flight: the setting "transfers", 1 to 16; 1
// fetches nothing ahead, and a safe run's upload sessions go one at a time.
// Absent, unreadable or out of range gives the default, 8: at 100 ms round
// trip the least that brings a first sync of small files under a fifth of
// the time of one request at a time, at about 16 requests a second, inside
// the service's rate limit.
inline constexpr int kDefaultTransfers = 8;
inline constexpr int kMaxTransfers = 16;
int ParseTransfers(const std::string& text);
int ReadTransfers();

// The person's go-ahead for deletions that the safe profile held back
// because there were too many: Confirm sets it in the settings file, and the
// next safe run takes it, once, whether it needs it or not.
void ConfirmDeletions();
bool TakeDeletionConfirmation();

}  // namespace dropbox
}  // namespace quillstone
