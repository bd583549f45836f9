// A server with failing system calls, and information about the call that failed.
//
// A plan is the text that fault_injector.cpp reads from V9_FAULT. A test process has one server at a time.
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

    // Returns "@FROM-TO" for a plan: the addresses of the function with this name, qualified or not. Throws
    // TestFailure if there is none.
    std::string within(std::string_view name) const;
    // Returns the names of the functions on the stack of the record's call, innermost first.
    std::vector<std::string> functions_of(const FaultRecord& record) const;

  private:
    ServerSymbols();

    std::map<std::uint64_t, std::string> by_address;
};

// The page that the injector writes to. Create it before the server starts.
class FaultWatch {
  public:
    FaultWatch();
    ~FaultWatch();
    FaultWatch(const FaultWatch&) = delete;
    FaultWatch& operator=(const FaultWatch&) = delete;

    std::uint64_t calls(FaultCall call) const { return page->calls[static_cast<std::size_t>(call)]; }
    // The number of calls of the plan's kind, thread and function.
    std::uint64_t seen() const { return page->seen; }
    // The number of calls that failed by injection.
    std::uint32_t injected() const { return page->injected; }
    // Valid once a fault was injected.
    const FaultRecord& first() const { return page->first; }
    // The functions on the stack, innermost first.
    std::vector<std::string> functions() const { return ServerSymbols::get().functions_of(first()); }
    bool came_through(std::string_view function_name) const;
    // For the failure message.
    std::string describe() const;

  private:
    FaultPage* page;
};

ServerOptions with_faults(const std::string& plan, std::vector<std::string> arguments = {});

// A server with a plan. An empty plan only counts.
struct FaultyServer {
    explicit FaultyServer(const std::string& plan) : server(with_faults(plan)) {}

    FaultWatch watch;
    ServerProcess server;
};
