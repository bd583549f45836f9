#include "tools/v9_rtmp_ctl/trouble.h"

void Trouble::tell(const Failure& failure) {
    if (last != failure.message) {
        last = failure.message;
        static_cast<void>(report(failure));
    }
}

void Trouble::tell_end() {
    if (!last.empty() && !quiet) {
        static_cast<void>(report({ExitCode::DONE, "the server answers."}));
    }
    last.clear();
}

void Trouble::take_in(const std::optional<Failure>& failure) {
    if (failure) {
        tell(*failure);
    } else {
        tell_end();
    }
}
