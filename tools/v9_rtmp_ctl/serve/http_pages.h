// What serve answers to a request: which page there is, who may have it, and the headers that protect it.
//
// Needs no socket: a request's head goes in, the bytes of the reply come out. Used by one thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// The pages, made anew for each request.
struct PageContents {
    std::function<std::string()> metrics;
    std::function<std::string()> connections_json;
    // Of which the nonce lets script and style run.
    std::function<std::string(const std::string& nonce)> status_page;
    // Nothing when the server answers; else what is wrong.
    std::function<std::string()> sickness;
    // Drops the connection with this id, if it is still from the address. Nothing when it was dropped
    // for certain.
    std::function<std::optional<Failure>(const std::string& id, const std::string& address)> drop;
};

struct PageRules {
    std::vector<std::string> host_names;  // beside addresses and localhost
    std::string token;                    // empty: no drops
};

class HttpPages {
  public:
    HttpPages(PageRules page_rules, PageContents page_contents);
    ~HttpPages();
    HttpPages(const HttpPages&) = delete;
    HttpPages& operator=(const HttpPages&) = delete;

    // The head ends with its empty line. The reply is whole and ends the connection.
    [[nodiscard]] std::string answer(const std::string& head);

  private:
    class Router;
    const std::unique_ptr<Router> router;
};
