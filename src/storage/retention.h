// Retention: when the card runs low, each camera's oldest hour of events goes.
//
// The supervision's capability thread calls CheckSdcardCapability every 600 s. One deletion
// pass (LoopDeleteEvent) removes, for every paired camera, the events of its oldest hour (up to
// the first one younger than 61 s, which may still be recording) and that hour's folder once
// empty. The driver repeats passes 10 ms apart while the card is full; it ends when the card is
// no longer full, when a pass fails, or after a pass that deleted nothing (nothing more can go
// until new events age or the next run).
#pragma once

// Events younger than this (seconds) are never removed.
constexpr long kRetentionMinAgeSeconds = 61;
// The card is full below this much free space (MiB).
constexpr unsigned long long kSdCardFullMiB = 100;

// 1 when the card is normal and has less than 100 MiB free; 0 otherwise.
int IsSdcardFull();
// One deletion pass over every camera. 0, or -1 when memory could not be allocated.
int LoopDeleteEvent();
// The same, counting the events removed into *removed when given.
int LoopDeleteEvent(int* removed);
// Removes the camera's hour folder that holds *timestamp when it is empty.
void CheckAndDelEmptyDir(long* timestamp, char* mac);
// Runs deletion passes while the card is full (see above).
void CheckSdcardCapability();
