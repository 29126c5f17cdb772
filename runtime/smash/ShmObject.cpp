// Names of shared-memory objects and opening them with the trust checks;
// see Smash/ShmObject.h.
#include <Smash/ShmObject.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace Smash {

namespace {

// Where the system keeps POSIX shared-memory objects.
constexpr char shmDir[] = "/dev/shm";
constexpr int openFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

std::string & prefixRef() {
   static std::string p = "/intf-";
   return p;
}
uid_t & ownerRef() {
   static uid_t owner = 0;
   return owner;
}

std::string pathOf(std::string const & name) { return shmDir + name; }

std::string modeText(mode_t m) {
   char buf[8];
   std::snprintf(buf, sizeof buf, "%04o", unsigned(m & 07777));
   return buf;
}

// Checks an open object; empty when it passes.
std::string check(std::string const & name, int fd, bool writer, size_t * size) {
   struct stat st;
   if (::fstat(fd, &st) != 0) return name + ": " + std::strerror(errno);
   if (!S_ISREG(st.st_mode)) return name + ": not a regular file";
   uid_t me = ::geteuid();
   if (writer) {
      if (st.st_uid != me) {
         return name + ": owned by user " + std::to_string(st.st_uid) + ", not by this writer's user " + std::to_string(me);
      }
      if (st.st_mode & (S_IWGRP | S_IWOTH)) return name + ": writable by group or others (mode " + modeText(st.st_mode) + ")";
   } else {
      if (st.st_uid != shmOwner() && st.st_uid != me) {
         return name + ": owned by user " + std::to_string(st.st_uid) + ", not by the trusted user " +
                std::to_string(shmOwner());
      }
      if (st.st_mode & S_IWOTH) return name + ": writable by others (mode " + modeText(st.st_mode) + ")";
   }
   *size = size_t(st.st_size);
   return "";
}

ShmFile openChecked(std::string const & name, bool writer) {
   ShmFile f;
   f.fd = ::open(pathOf(name).c_str(), (writer ? O_RDWR : O_RDONLY) | openFlags);
   if (f.fd < 0) {
      f.why = name + ": " + (errno == ELOOP ? std::string("a symbolic link") : std::strerror(errno));
      return f;
   }
   f.why = check(name, f.fd, writer, &f.size);
   if (!f.why.empty()) {
      ::close(f.fd);
      f.fd = -1;
   }
   return f;
}

} // namespace

void shmPrefixIs(std::string prefix) {
   if (prefix.empty() || prefix[0] != '/') prefix = "/" + prefix;
   prefixRef() = std::move(prefix);
}
std::string const & shmPrefix() { return prefixRef(); }
void shmOwnerIs(uid_t uid) { ownerRef() = uid; }
uid_t shmOwner() { return ownerRef(); }

std::string objectName(std::string_view path, std::string_view part) {
   // A path that starts with '/' carries its prefix: a table another
   // process named is found whatever this process's prefix.
   std::string name = path.starts_with('/') ? "/" : shmPrefix();
   if (path.starts_with('/')) path.remove_prefix(1);
   for (unsigned char c : path) {
      if (c == '/') {
         name += '.';
      } else if (c == '.' || c == '%' || c < 0x20 || c == 0x7f) {
         char buf[4];
         std::snprintf(buf, sizeof buf, "%%%02X", unsigned(c));
         name += buf;
      } else {
         name += char(c);
      }
   }
   name += '.';
   name += part;
   if (name.size() - 1 > NAME_MAX) {
      throw Error("shared-memory name for " + std::string(path) + " is " + std::to_string(name.size() - 1) +
                  " bytes long; at most " + std::to_string(NAME_MAX) + " fit");
   }
   return name;
}

ShmFile openForReading(std::string const & name) { return openChecked(name, false); }
ShmFile openForWriting(std::string const & name) { return openChecked(name, true); }

ShmFile createObject(std::string const & name, size_t bytes, bool adopt) {
   ShmFile f;
   f.fd = ::open(pathOf(name).c_str(), O_RDWR | O_CREAT | O_EXCL | openFlags, 0644);
   if (f.fd >= 0) {
      f.created = true;
   } else if (errno == EEXIST && adopt) {
      f = openForWriting(name);
      if (!f) return f;
   } else {
      f.why = "cannot create " + name + ": " + std::strerror(errno);
      return f;
   }
   if (f.created || f.size < bytes) {
      if (::ftruncate(f.fd, off_t(bytes)) != 0) {
         f.why = "cannot size " + name + ": " + std::strerror(errno);
         ::close(f.fd);
         f.fd = -1;
         if (f.created) ::unlink(pathOf(name).c_str());
         return f;
      }
      f.size = bytes;
   }
   return f;
}

bool stillNamed(int fd, std::string const & name) {
   struct stat held, now;
   return ::fstat(fd, &held) == 0 && ::lstat(pathOf(name).c_str(), &now) == 0 && held.st_ino == now.st_ino &&
          held.st_dev == now.st_dev;
}

bool removeObject(std::string const & name) { return ::unlink(pathOf(name).c_str()) == 0; }

namespace {

// Removes the objects of /dev/shm whose names `match` (without the leading '/').
template <class Match>
void removeMatching(Match match) {
   DIR * d = ::opendir(shmDir);
   if (!d) return;
   while (dirent * e = ::readdir(d)) {
      if (match(std::string_view(e->d_name))) ::unlinkat(::dirfd(d), e->d_name, 0);
   }
   ::closedir(d);
}

} // namespace

void removeObjectsOf(std::string_view path) {
   std::string head = objectName(path, "").substr(1);
   removeMatching([&](std::string_view n) {
      return n.size() > head.size() && n.substr(0, head.size()) == head &&
             n.find('.', head.size()) == std::string_view::npos;
   });
}

} // namespace Smash
