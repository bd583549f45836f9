// A server with a failing call, and information about the call that failed. A test process has one server at
// a time.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fault/fault_page.h"
#include "tests/support/server_process.h"

// The server's functions and their addresses.
class ServerSymbols {
  public:
    static const ServerSymbols& get();

    // Returns the addresses of the function with this name, qualified or not. Throws TestFailure if there
    // is none.
    CodeRange within(std::string_view name) const;
    // Returns the names of the functions on the stack, innermost first.
    std::vector<std::string> functions_of(const FaultStack& stack) const;

  private:
    ServerSymbols();

    std::map<std::uint64_t, std::string> by_address;
};

// The page that the injector reads and writes. Create it before the server starts.
class FaultWatch {
  public:
    explicit FaultWatch(const FaultPlan& plan);
    ~FaultWatch();
    FaultWatch(const FaultWatch&) = delete;
    FaultWatch& operator=(const FaultWatch&) = delete;

    const FaultPage& page() const { return *mapped; }
    // Whether the first call that failed came through this function.
    bool came_through(std::string_view function_name) const;
    // For the failure message.
    std::string describe() const;

  private:
    FaultPage* mapped;
};

// Returns the options of a server whose calls pass through the injector.
ServerOptions with_injector();

struct FaultyServer {
    explicit FaultyServer(const FaultPlan& plan) : watch(plan) {}

    FaultWatch watch;
    ServerProcess server{with_injector()};
};
