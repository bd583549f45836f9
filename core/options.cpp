#include "core/options.h"

#include <array>
#include <string>
#include <string_view>

#include "base/diag.h"
#include "core/switches.h"

namespace {

struct Switch {
    std::string_view name;
    bool& flag;
    const char* usage;
};

// In the order of the usage text.
const std::array<Switch, 2> SWITCHES{{
    {"dbg-pkt", opt_dbg_pkt, "  --dbg-pkt     Debug packet conversation (without A/V content)\n"},
    {"no-def-ack", opt_no_def_ack, "  --no-def-ack  Do not send ACK packets unless asked to.\n"},
}};

bool print_usage() {
    for (const Switch& known : SWITCHES) {
        diag_block(known.usage);
    }
    return false;
}

bool apply_switch(std::string_view name) {
    for (const Switch& known : SWITCHES) {
        if (name == known.name) {
            known.flag = true;
            return true;
        }
    }
    return refuse("Unhandled switch %s\n", name.data());
}

}  // namespace

bool parse_options(int argc, const char* const* argv) {
    for (int i = 1; i < argc; ++i) {
        std::string_view name = argv[i];
        if (!name.starts_with('-')) {
            return refuse("Unhandled arg '%s'\n", argv[i]);
        }
        // Any number of dashes is accepted: -x, --x and ---x are the same switch.
        while (name.starts_with('-')) {
            name.remove_prefix(1);
        }
        if (name == "h" || name == "help") {
            return print_usage();
        }
        if (!apply_switch(name)) {
            return false;
        }
    }
    return true;
}
