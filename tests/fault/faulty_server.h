// A server some of whose system calls fail, and what can be known about the call that did.
//
// A plan is what fault_injector.cpp reads from V9_FAULT. Each test process has one server at a time.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fault/fault_page.h"
#include "tests/support/server_process.h"

// The server's functions and where they are.
class ServerSymbols {
  public:
    static const ServerSymbols& get();

    // "@FROM-TO" for a plan: the function of this name, with or without the namespaces and classes it is in.
    // Throws TestFailure when there is none.
    std::string within(std::string_view name) const;
    // The names of the functions that the record's call came from, innermost first.
    std::vector<std::string> functions_of(const FaultRecord& record) const;

  private:
    ServerSymbols();

    std::map<std::uint64_t, std::string> by_address;
};

// The page that the injector writes to. Made before the server starts.
class FaultWatch {
  public:
    FaultWatch();
    ~FaultWatch();
    FaultWatch(const FaultWatch&) = delete;
    FaultWatch& operator=(const FaultWatch&) = delete;

    std::uint64_t calls(FaultCall call) const { return page->calls[static_cast<std::size_t>(call)]; }
    // Those of them that are of the kind, thread and function that the plan's first fault is about.
    std::uint64_t seen() const { return page->seen; }
    // How many calls were made to fail, or are held.
    std::uint32_t injected() const { return page->injected; }
    void wait_until_injected(Milliseconds wait = DEFAULT_WAIT) const;
    // Lets go the call that is held.
    void release() const { page->released = 1; }
    // Once something was injected.
    const FaultRecord& first() const { return page->first; }
    // What called, and what called that, innermost first.
    std::vector<std::string> functions() const { return ServerSymbols::get().functions_of(first()); }
    bool came_through(std::string_view function_name) const;
    // For the failure message.
    std::string describe() const;

  private:
    FaultPage* page;
};

ServerOptions with_faults(const std::string& plan, std::vector<std::string> arguments = {});

// A server with a plan. An empty plan counts and changes nothing.
struct FaultyServer {
    explicit FaultyServer(const std::string& plan) : server(with_faults(plan)) {}

    FaultWatch watch;
    ServerProcess server;
};
