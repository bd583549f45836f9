// v9_rtmp_ctl for the actors of a soak. Throws TestFailure if the tool does not do as asked.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/rtmp_client.h"

nlohmann::json list_connections();
// Returns the connection from this address, as "list" shows it.
nlohmann::json listed_connection(const std::string& address);
// Returns how many connections were dropped.
std::uint64_t drop_by_id(std::uint64_t id);
std::uint64_t drop_by_stream(const std::string& name);
