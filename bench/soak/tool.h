// v9_rtmp_ctl as the actors of a soak use it. Throws TestFailure when it does not do what it was asked for.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/rtmp_client.h"

nlohmann::json list_connections();
// The connection from this address, as "list" shows it.
nlohmann::json listed_connection(const std::string& address);
// Returns how many connections were dropped.
std::uint64_t drop_by_id(std::uint64_t id);
std::uint64_t drop_by_stream(const std::string& name);
