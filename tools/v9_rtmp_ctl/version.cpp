#include <iostream>

#include "tools/v9_rtmp_ctl/commands.h"
#include "tools/v9_rtmp_ctl/failure.h"
#include "tools/v9_rtmp_ctl/json_forms.h"

ExitCode run_version(const Settings& settings) {
    if (settings.form == OutputForm::JSON) {
        std::cout << version_json(V9_RTMP_CTL_VERSION) << '\n';
    } else {
        std::cout << (settings.form == OutputForm::PLAIN ? "" : "v9_rtmp_ctl ") << V9_RTMP_CTL_VERSION
                  << '\n';
    }
    return ExitCode::DONE;
}
