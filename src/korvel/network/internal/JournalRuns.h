// Several processes, one data folder: each writes a journal of its own.
//
// The first process writes its journal in the data folder itself (as
// every earlier version did); one that finds it held by another live
// process writes its own in "run-<n>", a folder with its own lock. Every
// start takes over the run folders no live process holds: their segments
// move into its journal and are recovered with its own.
#pragma once

#include <memory>
#include <string>

#include <korvel/network/internal/FileSystem.h>
#include <korvel/network/internal/JournalFront.h>

namespace korvel::network::internal {

// Opens this process's journal in the checked data folder top: the folder's
// own or a free run folder; null with the reason in failure.
std::unique_ptr<JournalFront> openOwnJournal(FileSystem& files, const RequestStoreOptions& options,
                                             FileHandle top, std::string& failure);

// Moves the segments of every run folder no live process holds into front's
// journal, before its recovery, and removes the emptied folders.
void adoptOrphanedJournals(FileSystem& files, FileHandle top, JournalFront& front);

}  // namespace korvel::network::internal
