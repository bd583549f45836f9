// The terminal while watch uses it: the alternate screen, keys without echo, signals as events.
//
//   [usual] --open, end of suspend--> [taken] --suspend, destructor--> [usual]
//
// The destructor restores the terminal, on return and on an exception. If the terminal accepts no output, it
// is given back within half a second and pending output is discarded. Signals that would end or stop the
// process are blocked until then; read_signals reports them. A background process does not take the terminal:
// it is stopped until it is brought to the foreground. At most one object exists, used by one thread.
#pragma once

#include <termios.h>

#include <csignal>
#include <memory>
#include <string>
#include <string_view>

struct SignalEvents {
    bool quit = false;     // Ctrl-C, Ctrl-\, or a signal to end the process
    bool suspend = false;  // Ctrl-Z, or a signal to stop it
    bool resize = false;
};

class Screen {
  public:
    // Null, with nothing changed, if standard input or output is not a suitable terminal.
    [[nodiscard]] static std::unique_ptr<Screen> open();
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // The descriptors to poll for input.
    [[nodiscard]] int signal_fd() const { return signals; }
    [[nodiscard]] static int key_fd();

    // Returns the signals received so far; never blocks.
    [[nodiscard]] SignalEvents read_signals() const;

    // Appends the typed bytes. False if the terminal is gone.
    [[nodiscard]] static bool read_keys(std::string& bytes);

    // Writes until all bytes are written or a signal arrives; the caller then reads the signals and repaints.
    // False if the terminal is gone.
    [[nodiscard]] bool write(std::string_view bytes) const;

    // Whether another job has the terminal. This can happen without a signal to this process.
    [[nodiscard]] static bool is_in_background();

    // Gives the terminal back, stops the process until it is continued in the foreground, and takes the
    // terminal again. Does not stop it if there is no shell with job control. False if the terminal is gone.
    [[nodiscard]] bool suspend();

  private:
    Screen(int signal_descriptor, int output_descriptor, const termios& usual, const sigset_t& usual_signals);
    [[nodiscard]] bool take();
    void give_back();
    [[nodiscard]] bool write_in_time(std::string_view bytes) const;

    const int signals;
    const int output;  // the terminal, opened separately as non-blocking
    const termios usual_mode;
    const sigset_t usual_mask;
    bool is_taken = false;
};
