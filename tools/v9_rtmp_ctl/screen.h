// The terminal while watch fills it: the alternate screen, keys without echo, signals as events.
//
//   [usual] --open, resume--> [taken] --close, suspend, destructor--> [usual]
//
// However the owner is left, by return or by exception, the terminal is as it was before. A terminal that
// takes no output is left within half a second; what it has not shown yet is thrown away then. Signals that
// would end or stop the process are held back meanwhile and told by read_signals instead. A process in the
// background takes nothing: it is stopped until it is brought to the foreground. One at a time; one thread.
#pragma once

#include <termios.h>

#include <csignal>
#include <memory>
#include <string>
#include <string_view>

struct SignalEvents {
    bool quit = false;     // Ctrl-C, Ctrl-\, or somebody ends the process
    bool suspend = false;  // Ctrl-Z, or somebody stops it
    bool resize = false;
};

class Screen {
  public:
    // Null, with nothing changed, when standard input or output is no terminal that can do this.
    [[nodiscard]] static std::unique_ptr<Screen> open();
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // To be polled for input.
    [[nodiscard]] int signal_fd() const { return signals; }
    [[nodiscard]] static int key_fd();

    // What has come; never blocks.
    [[nodiscard]] SignalEvents read_signals() const;

    // Appends what was typed. False when the terminal is gone.
    [[nodiscard]] static bool read_keys(std::string& bytes);

    // Writes as long as the terminal takes output and no signal has come; the caller reads the signals and
    // paints again. False when the terminal is gone.
    [[nodiscard]] bool write(std::string_view bytes) const;

    // Another job has the terminal, although this process was not asked to give it back.
    [[nodiscard]] static bool is_in_background();

    // Gives the terminal back, stops the process until it is continued in the foreground, and takes the
    // terminal again. False when that is gone.
    [[nodiscard]] bool suspend();

  private:
    Screen(int signal_descriptor, int output_descriptor, const termios& usual, const sigset_t& usual_signals);
    [[nodiscard]] bool take();
    void give_back();
    [[nodiscard]] bool write_in_time(std::string_view bytes) const;

    const int signals;
    const int output;  // the terminal, which others may have open as well, without blocking
    const termios usual_mode;
    const sigset_t usual_mask;
    bool is_taken = false;
};
