// Small files that a program leaves for itself or for others: read whole, replaced whole.
#pragma once

#include <optional>
#include <string>

// Nothing when the file cannot be read, or is larger than 64 MiB; errno says why.
[[nodiscard]] std::optional<std::string> read_file(const std::string& path);

// Writes a temporary file beside it and renames that, so that a reader sees either the old text or the new
// one. False, and the file is as it was, on a failure; errno says which.
[[nodiscard]] bool replace_file(const std::string& path, const std::string& text);

// Holds a lock on a file, which is created if it is absent. Programs that write the same files use it to find
// each other.
class FileLock {
  public:
    explicit FileLock(const std::string& path);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Another program, or another lock of this one, has it. Not if the file cannot be opened: then neither
    // can what it protects be written.
    [[nodiscard]] bool is_held_elsewhere() const { return held_elsewhere; }

  private:
    const int fd;
    const bool held_elsewhere;
};

// What tells the boots of this machine apart; empty when the system does not say.
[[nodiscard]] std::string boot_id();
