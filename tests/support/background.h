// Work on another thread beside the test.
#pragma once

#include <exception>
#include <stop_token>
#include <string>
#include <thread>

// Runs a loop body on a thread until destroyed. An exception from the body is kept for the test.
class Background {
  public:
    template <typename Body>
    explicit Background(Body body) : thread([this, body](const std::stop_token& stop) { run(stop, body); }) {}
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    void stop() {
        thread.request_stop();
        if (thread.joinable()) {
            thread.join();
        }
    }
    // Call after stop().
    const std::string& failure() const { return failure_text; }

  private:
    template <typename Body>
    void run(const std::stop_token& stop, const Body& body) {
        try {
            while (!stop.stop_requested()) {
                body();
            }
        } catch (const std::exception& error) {
            failure_text = error.what();
        }
    }

    std::string failure_text;
    std::jthread thread;
};
