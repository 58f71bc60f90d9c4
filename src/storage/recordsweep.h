// The start-up sweep of the recording tree: files in the hour folders that no index record
// names are removed, so they never escape retention and fill the card.
//
// How such files come about. A clip or snapshot reaches the card under a temporary name
// ("NAME.XXXXXX"), is synced and renamed, and the hour folder is synced before the index record
// is appended. A power cut or card pull at any moment leaves the clip whole or absent, but it can
// leave a temporary file (cut during the copy), a clip and snapshot without their record (cut
// between the copy and the append), a clip without its snapshot (failed snapshot copy: no record
// by design), or a clip and snapshot whose record was removed just before them (cut inside an
// event's removal). None of these is ever listed, played back or deleted by retention.
//
// What is kept: in a camera folder (twelve hexadecimal digits) and an hour folder (ten digits),
// a regular file named mmMssS_T.mp4 or mmMssS_T.jpeg whose T is a start time of the camera's
// index and whose hour folder, minute and second are T's in local time. Everything else in the
// hour folders is removed, and an hour folder left empty goes too. A camera whose index exists
// but cannot be read is left alone; a camera without an index has no event, so all of its hour
// folders' files go. Nothing outside the hour folders is touched.
//
// Runs once on the main thread at start, after the card is set up and before any camera can
// record; it takes timestamp_mutex only through the index reads.
#pragma once

// Sweeps the tree when the card is usable. The number of files removed, or -1 when there is no
// usable card.
int SweepUnindexedRecords();
