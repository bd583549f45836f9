#include <iostream>
#include <optional>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/control_client.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"

ExitCode run_raw(const Settings& settings, const RawOptions& options) {
    ControlClient client(settings.socket_path, settings.timeout_us());
    if (options.async) {
        const std::optional<Failure> failure = client.send_async(options.request);
        return failure ? report(*failure) : ExitCode::DONE;
    }
    Reply reply;
    if (const std::optional<Failure> failure = client.call(options.request, reply)) {
        return report(*failure);
    }
    std::cout << reply_json(reply) << '\n';
    return ExitCode::DONE;
}
