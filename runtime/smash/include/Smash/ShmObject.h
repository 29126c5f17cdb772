// Shared-memory objects as the tables and the counter cells use them: their
// names, and opening them only when they can be trusted.
//
// Names. An object's name is the process's prefix (shmPrefixIs) followed by
// the mount path it serves, with '/' written as '.', and a part ("ctl",
// "g3", "seg0") after a last '.'. '%', '.' and control bytes of the path
// are written as "%XX", so two paths never share an object; a name longer
// than the system allows is refused, never shortened.
//
// Trust. /dev/shm is writable by every local user, so an object is used only
// when it is a regular file (not a link, FIFO, device or directory: opened
// without following links and without blocking) and:
//   - a writer creates its objects exclusively, mode 0644, and adopts an
//     existing one only when its own user owns it and neither group nor
//     others may write it;
//   - a reader accepts an object only when the trusted owner (shmOwnerIs,
//     root unless set) or the reader's own user owns it, and others may not
//     write it.
// A refusal says which object and why.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Smash {

class Error : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// Where this process's objects live: every name starts with it ("/intf-"
// unless set). Tests set a unique prefix and remove what they made.
void shmPrefixIs(std::string prefix);
std::string const & shmPrefix();
// The user whose objects readers trust besides their own (root unless set):
// the writer's user.
void shmOwnerIs(uid_t uid);
uid_t shmOwner();

// The object name of a part ("ctl", "g3", "seg0") of what is mounted at
// `path`. A path that starts with '/' carries its own prefix
// ("/intf-a-interface/counter" names "/intf-a-interface.counter.ctl" whatever
// this process's prefix). Throws Smash::Error when the name would be too long.
std::string objectName(std::string_view path, std::string_view part);

// An object opened and checked; `fd` is -1 and `why` says why when it is not.
struct ShmFile {
   int fd = -1;
   size_t size = 0;
   bool created = false;
   std::string why;
   explicit operator bool() const { return fd >= 0; }
};

// An existing object, read-only, checked as a reader checks.
ShmFile openForReading(std::string const & name);
// An existing object, read-write, checked as a writer checks.
ShmFile openForWriting(std::string const & name);
// A new object of `bytes` (created exclusively), or with `adopt` an existing
// one that passes the writer's checks (`created` says which).
ShmFile createObject(std::string const & name, size_t bytes, bool adopt);
// Whether the object open at `fd` is still the one at `name` (not removed,
// nor replaced by another).
bool stillNamed(int fd, std::string const & name);
// Removes an object; true when there was one.
bool removeObject(std::string const & name);
// Removes every part of what is mounted at `path` (objectName(path, X) for
// every X).
void removeObjectsOf(std::string_view path);

} // namespace Smash
