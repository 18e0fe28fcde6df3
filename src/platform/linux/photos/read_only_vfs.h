// SQLite over files that it cannot change: the way to a database that belongs to somebody else.
//
// Files are opened for reading alone and nothing is created beside them, neither -wal nor -shm nor
// a journal. A write-ahead log that is there is honoured: its index is built in memory, which wants
// "PRAGMA locking_mode=EXCLUSIVE" before the first read. The shared lock of SQLite's file format
// (https://www.sqlite.org/lockingv3.html) is taken, so that a program that is about to write is
// noticed; of a log's own locks nothing is known, and the caller looks whether files have changed.
// A journal that waits to be rolled back makes reading fail with SQLITE_READONLY_ROLLBACK. Any
// thread.
#pragma once

namespace vesko {

/// For sqlite3_open_v2; null when SQLite refuses to take it.
const char* readOnlyVfs();

}  // namespace vesko
