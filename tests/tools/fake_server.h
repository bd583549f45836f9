// A control server for tests. On its own thread, it answers every request with what a function returns.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "tools/v9_rtmp_ctl/control_client.h"

class FakeServer {
  public:
    // A request for which it returns nothing is not answered.
    using Answer = std::function<std::optional<Reply>(const Request& request, bool async)>;

    explicit FakeServer(Answer answer_function);
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    [[nodiscard]] const std::string& path() const { return socket_path; }

  private:
    void serve();

    const Answer answer;
    const std::string directory;
    const std::string socket_path;
    comm_socket_v4* const server;
    std::atomic<bool> stopping = false;
    std::thread thread;
};

// A new, empty directory.
[[nodiscard]] std::string make_directory();
