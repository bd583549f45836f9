// Small state files, read whole and replaced whole.
#pragma once

#include <optional>
#include <string>

// Empty if the file cannot be read or is larger than 64 MiB; errno says why.
[[nodiscard]] std::optional<std::string> read_file(const std::string& path);

// Writes a temporary file next to the file at path and renames it, so readers see either the old text or the
// new one. On failure returns false, leaves the file unchanged and sets errno: ENOTSUP if path is not a
// regular file, for example a device or a symbolic link.
[[nodiscard]] bool replace_file(const std::string& path, const std::string& text);

// Holds a lock on a file, which is created if it is absent. Programs that write the same files use it to
// detect each other.
class FileLock {
  public:
    explicit FileLock(const std::string& path);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Whether another program, or another FileLock of this program, holds the lock. False if the file cannot
    // be opened: the protected files cannot be written then either.
    [[nodiscard]] bool is_held_elsewhere() const { return held_elsewhere; }

  private:
    const int fd;
    const bool held_elsewhere;
};

// Returns an identifier of this boot of the machine. Empty if the system does not provide one.
[[nodiscard]] std::string boot_id();
