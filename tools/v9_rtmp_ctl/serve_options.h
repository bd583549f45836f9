// The options of metrics and serve.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/v9_rtmp_ctl/commands.h"

void add_metrics_options(CLI::App& metrics, MetricsOptions& options);
void add_serve_options(CLI::App& serve, ServeOptions& options);
