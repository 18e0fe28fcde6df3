#include "platform/linux/photos/read_only_vfs.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "base/unique_fd.h"

namespace vesko {
namespace {

constexpr const char* vfsName = "vesko-read-only";

// The bytes of a database file that stand for its locks.
constexpr off_t pendingByte = 0x40000000;
constexpr off_t reservedByte = pendingByte + 1;
constexpr off_t sharedFirst = pendingByte + 2;
constexpr off_t sharedSize = 510;

struct File {
  sqlite3_file base;  // first: SQLite's pointer is that of the whole
  int fd;             ///< -1 for a log that is not there, which reads as empty
};

File& of(sqlite3_file* file) {
  return *reinterpret_cast<File*>(file);
}

/// Locks of the open file rather than of the process, which other connections would give up.
int setLock(int fd, short type, off_t begin, off_t length) {
  struct flock lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = begin;
  lock.l_len = length;
  if (::fcntl(fd, F_OFD_SETLK, &lock) == 0) return SQLITE_OK;
  // A file system without locks has nobody to wait for.
  return errno == EAGAIN || errno == EACCES ? SQLITE_BUSY : SQLITE_OK;
}

int closeFile(sqlite3_file* file) {
  const UniqueFd closes(of(file).fd);
  return SQLITE_OK;
}

int readFile(sqlite3_file* file, void* out, int count, sqlite3_int64 offset) {
  auto* to = static_cast<char*>(out);
  auto rest = static_cast<std::size_t>(count);
  while (rest > 0 && of(file).fd >= 0) {
    const ssize_t got = ::pread(of(file).fd, to, rest, offset);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return SQLITE_IOERR_READ;
    if (got == 0) break;
    to += got;
    offset += got;
    rest -= static_cast<std::size_t>(got);
  }
  if (rest == 0) return SQLITE_OK;
  std::memset(to, 0, rest);
  return SQLITE_IOERR_SHORT_READ;
}

int refuseWrite(sqlite3_file*, const void*, int, sqlite3_int64) {
  return SQLITE_READONLY;
}

int refuseTruncate(sqlite3_file*, sqlite3_int64) {
  return SQLITE_READONLY;
}

int syncNothing(sqlite3_file*, int) {
  return SQLITE_OK;
}

int fileSize(sqlite3_file* file, sqlite3_int64* size) {
  struct stat info{};
  if (of(file).fd >= 0 && ::fstat(of(file).fd, &info) != 0) return SQLITE_IOERR_FSTAT;
  *size = info.st_size;
  return SQLITE_OK;
}

/// Stronger locks than the shared one serve writing, which does not take place.
int lockFile(sqlite3_file* file, int level) {
  if (level != SQLITE_LOCK_SHARED) return SQLITE_OK;
  const int fd = of(file).fd;
  if (setLock(fd, F_RDLCK, pendingByte, 1) != SQLITE_OK) return SQLITE_BUSY;
  const int result = setLock(fd, F_RDLCK, sharedFirst, sharedSize);
  setLock(fd, F_UNLCK, pendingByte, 1);
  return result;
}

int unlockFile(sqlite3_file* file, int level) {
  return level == SQLITE_LOCK_NONE ? setLock(of(file).fd, F_UNLCK, sharedFirst, sharedSize)
                                   : SQLITE_OK;
}

int checkReservedLock(sqlite3_file* file, int* reserved) {
  struct flock lock{};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = reservedByte;
  lock.l_len = 1;
  *reserved = ::fcntl(of(file).fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? 1 : 0;
  return SQLITE_OK;
}

int fileControl(sqlite3_file*, int, void*) {
  return SQLITE_NOTFOUND;
}

int sectorSize(sqlite3_file*) {
  return 4096;
}

int deviceCharacteristics(sqlite3_file*) {
  return 0;
}

constexpr sqlite3_io_methods methods = {
    .iVersion = 1,
    .xClose = closeFile,
    .xRead = readFile,
    .xWrite = refuseWrite,
    .xTruncate = refuseTruncate,
    .xSync = syncNothing,
    .xFileSize = fileSize,
    .xLock = lockFile,
    .xUnlock = unlockFile,
    .xCheckReservedLock = checkReservedLock,
    .xFileControl = fileControl,
    .xSectorSize = sectorSize,
    .xDeviceCharacteristics = deviceCharacteristics,
    .xShmMap = nullptr,
    .xShmLock = nullptr,
    .xShmBarrier = nullptr,
    .xShmUnmap = nullptr,
    .xFetch = nullptr,
    .xUnfetch = nullptr,
};

int openFile(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  file->pMethods = nullptr;
  constexpr int known = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL;
  if (!name || (flags & known) == 0) return SQLITE_CANTOPEN;
  UniqueFd fd(::open(name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  const bool absentLog = !fd && errno == ENOENT && (flags & SQLITE_OPEN_WAL) != 0;
  struct stat info{};
  if (!absentLog && (!fd || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)))
    return SQLITE_CANTOPEN;
  of(file).fd = fd.release();
  file->pMethods = &methods;
  if (outFlags)
    *outFlags = (flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY;
  return SQLITE_OK;
}

int refuseDelete(sqlite3_vfs*, const char*, int) {
  return SQLITE_READONLY;
}

int access(sqlite3_vfs*, const char* name, int flags, int* result) {
  struct stat info{};
  *result = flags != SQLITE_ACCESS_READWRITE && ::lstat(name, &info) == 0 ? 1 : 0;
  return SQLITE_OK;
}

int fullPathname(sqlite3_vfs*, const char* name, int size, char* out) {
  if (std::strlen(name) >= static_cast<std::size_t>(size)) return SQLITE_CANTOPEN;
  std::strcpy(out, name);
  return SQLITE_OK;
}

const char* registerVfs() {
  const sqlite3_vfs* system = sqlite3_vfs_find(nullptr);
  if (!system) return nullptr;
  static sqlite3_vfs vfs = *system;  // its clock, its sleep and its random source
  vfs.pNext = nullptr;
  vfs.zName = vfsName;
  vfs.szOsFile = sizeof(File);
  vfs.xOpen = openFile;
  vfs.xDelete = refuseDelete;
  vfs.xAccess = access;
  vfs.xFullPathname = fullPathname;
  return sqlite3_vfs_register(&vfs, 0) == SQLITE_OK ? vfsName : nullptr;
}

}  // namespace

const char* readOnlyVfs() {
  static const char* const name = registerVfs();
  return name;
}

}  // namespace vesko
