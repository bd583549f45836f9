// The replies of serve: the pages, who may request them, and the headers that protect them.
//
// Uses no socket: takes a request's head and returns the bytes of the reply. Used by one thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/v9_rtmp_ctl/failure.h"

// The contents of the pages. The functions are called for each request.
struct PageContents {
    std::function<std::string()> metrics;
    std::function<std::string()> connections_json;
    // The nonce permits the page's own script and style.
    std::function<std::string(const std::string& nonce)> status_page;
    // Empty if the server answers; otherwise what is wrong.
    std::function<std::string()> sickness;
    // Drops the connection with this id, if it still has the address. Empty if it was certainly dropped.
    std::function<std::optional<Failure>(const std::string& id, const std::string& address)> drop;
};

struct PageRules {
    std::vector<std::string> host_names;  // besides addresses and localhost
    std::string token;                    // empty: drops not allowed
};

class HttpPages {
  public:
    HttpPages(PageRules page_rules, PageContents page_contents);
    ~HttpPages();
    HttpPages(const HttpPages&) = delete;
    HttpPages& operator=(const HttpPages&) = delete;

    // The head includes its empty line. Returns the whole reply, after which the connection ends.
    [[nodiscard]] std::string answer(const std::string& head);

  private:
    class Router;
    const std::unique_ptr<Router> router;
};
