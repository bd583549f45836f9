#include "tests/support/long_names.h"

#include <algorithm>
#include <future>
#include <iterator>

std::string long_stream_name(std::size_t idx, std::size_t name_bytes) {
    const std::string number = std::to_string(idx);
    return number + std::string(name_bytes - number.size(), 'n');
}

RtmpClient publisher_with_long_name(const std::string& name, const ClientOptions& options) {
    RtmpClient client = connected_client("ombrex-live", options);
    client.set_chunk_size(1 << 20);
    client.send_command(amf_string("publish") + amf_number(2) + amf_null() + amf_long_string(name) +
                        amf_string("live"));
    (void)client.round_trip();
    return client;
}

std::vector<RtmpClient> publishers_with_long_names(std::size_t count, std::size_t name_bytes) {
    // No more at a time than the server's backlog has room for.
    constexpr std::size_t SIDE_BY_SIDE = 8;
    std::vector<RtmpClient> clients;
    while (clients.size() < count) {
        std::vector<std::future<RtmpClient>> connecting;
        for (std::size_t i = clients.size(); i < std::min(count, clients.size() + SIDE_BY_SIDE); ++i) {
            connecting.push_back(std::async(std::launch::async, publisher_with_long_name,
                                            long_stream_name(i, name_bytes), ClientOptions{}));
        }
        std::ranges::transform(connecting, std::back_inserter(clients), &std::future<RtmpClient>::get);
    }
    return clients;
}
