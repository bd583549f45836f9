#include "tests/fault/faulty_server.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <sstream>

#include "tests/support/private_namespaces.h"
#include "tests/support/program_process.h"
#include "tests/support/test_failure.h"

namespace {

// "a::(anonymous namespace)::b[abi:cxx11](int)" becomes "a::b".
std::string plain_name(std::string function) {
    constexpr std::string_view ANONYMOUS = "(anonymous namespace)::";
    for (std::size_t i = 0; (i = function.find(ANONYMOUS)) != std::string::npos;) {
        function.erase(i, ANONYMOUS.size());
    }
    return function.substr(0, function.find_first_of("(["));
}

// Whether a function has this name, qualified or not.
bool has_name(const std::string& function, std::string_view name) {
    std::string_view plain = function;
    if (!plain.ends_with(name)) {
        return false;
    }
    plain.remove_suffix(name.size());
    return plain.empty() || plain.ends_with(':');
}

}  // namespace

const ServerSymbols& ServerSymbols::get() {
    static const ServerSymbols symbols;
    return symbols;
}

ServerSymbols::ServerSymbols() {
    std::istringstream lines(run_program({"nm", "-C", "--defined-only", server_path()}).out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::uint64_t address = 0;
        std::string kind;
        fields >> std::hex >> address >> kind;
        std::string name;
        std::getline(fields >> std::ws, name);
        if (kind == "t" || kind == "T" || kind == "W" || kind == "w") {
            by_address[address] = name.find(".cold") == std::string::npos ? plain_name(name) : name;
        }
    }
    if (by_address.empty()) {
        throw TestFailure(
            "nm found no function in the server: is binutils installed, and the server not stripped?");
    }
}

CodeRange ServerSymbols::within(std::string_view name) const {
    for (auto symbol = by_address.begin(); symbol != by_address.end(); ++symbol) {
        const auto next = std::next(symbol);
        if (next != by_address.end() && has_name(symbol->second, name)) {
            return {symbol->first, next->first};
        }
    }
    throw TestFailure("the server has no function " + std::string(name));
}

std::vector<std::string> ServerSymbols::functions_of(const FaultStack& stack) const {
    std::vector<std::string> functions;
    for (std::uint32_t i = 0; i < stack.count; ++i) {
        auto symbol = by_address.lower_bound(stack.frames[i]);  // A return address is after the call.
        if (symbol != by_address.begin()) {
            functions.push_back(std::prev(symbol)->second);
        }
    }
    return functions;
}

FaultWatch::FaultWatch(const FaultPlan& plan) {
    const int fd =
        checked(open(FAULT_PAGE_PATH, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), FAULT_PAGE_PATH);
    checked(ftruncate(fd, sizeof(FaultPage)), "ftruncate");
    void* const memory = mmap(nullptr, sizeof(FaultPage), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) {
        throw TestFailure(std::string("cannot map ") + FAULT_PAGE_PATH);
    }
    mapped = new (memory) FaultPage{.plan = plan};
}

FaultWatch::~FaultWatch() {
    munmap(mapped, sizeof(FaultPage));
}

bool FaultWatch::came_through(std::string_view function_name) const {
    const std::vector<std::string> all = ServerSymbols::get().functions_of(mapped->first.stack);
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string& function) { return has_name(function, function_name); });
}

std::string FaultWatch::describe() const {
    const FaultRecord& first = mapped->first;
    std::string text = std::to_string(mapped->injected) + " injected, first for connection " +
                       std::to_string(static_cast<int>(first.connection)) + " at call " +
                       std::to_string(first.call_of_thread) + " of its thread, through";
    for (const std::string& function : ServerSymbols::get().functions_of(first.stack)) {
        text += "\n    " + function;
    }
    return text;
}

ServerOptions with_injector() {
    ServerOptions options;
    options.environment = {"LD_PRELOAD=" + linked_in_run(V9_FAULT_INJECTOR_PATH)};
    options.limits = {{RLIMIT_CORE, 0}};  // Some must end by an assertion.
    return options;
}
