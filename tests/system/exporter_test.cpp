// The exporter over HTTP: what it serves, what it refuses, and its page in a browser.
#include <poll.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "certificates.h"

namespace {

using namespace test_support;
using names = std::set<std::string>;

constexpr char CHROMIUM[] = "/usr/bin/chromium";

struct fetched {
    std::string head, body;
    bool holds(const std::string& text) const { return body.find(text) != body.npos; }
};

class Exporter : public served_agent {
  protected:
    std::unique_ptr<process> exporter;
    int port = 0;

    Exporter() { a.set("COMMON", "STATE_FILE", "kessard.state"); }
    void serve() {
        start();
        const texts words = {KESSCTL_PROGRAM, "exporter", "--listen", "127.0.0.1:0"};
        exporter = std::make_unique<process>(words, a.variables);
        std::smatch found;
        std::string out;
        ASSERT_TRUE(wait_until([&] {
            out = exporter->out();
            return std::regex_search(out, found, std::regex("http://127.0.0.1:([0-9]+)/\n"));
        })) << exporter->err();
        port = std::stoi(found[1]);
    }
    agt::unique_fd send(const std::string& request) const {
        agt::unique_fd peer(agt::create_tcp_client_session("127.0.0.1", port, 0));
        EXPECT_EQ(write(peer.get(), request.data(), request.size()), ssize_t(request.size()));
        return peer;
    }
    static fetched receive(const agt::unique_fd& peer) {
        std::string all(1 << 20, '\0');
        std::size_t size = 0;
        for (ssize_t got = 1; got > 0; size += static_cast<std::size_t>(std::max<ssize_t>(got, 0)))
            got = agt::wait_fd(peer.get(), POLLIN, LIMIT_MS) == agt::wait_result::ready
                      ? read(peer.get(), all.data() + size, all.size() - size)
                      : -1;
        const std::size_t end = std::min(all.find("\r\n\r\n"), size);
        return {all.substr(0, end), all.substr(end, size - end)};
    }
    fetched get(const std::string& path, const std::string& more = "") const {
        return receive(send("GET " + path + " HTTP/1.1\r\nHost: x\r\n" + more + "\r\n"));
    }
    void add_process(const char* name, char wanted = 1) {
        PROCESS_INFO& row = a.segment()->proc_info[a.segment()->proc_num++];
        row = {0, a.pid(), {}, {}, 0, 1, wanted, 0, 0, 0, 0, 0};
        std::strcpy(row.proc_bin, name);
    }
};

// The names of the figures in a text, one of Prometheus' own or of a query.
names figures_in(const std::string& text) {
    const std::regex name("\\bkessard_[a-z_]+\\b");
    return {std::sregex_token_iterator(text.begin(), text.end(), name), {}};
}

TEST_F(Exporter, ServesFiguresHealthAndPage) {
    serve();
    add_process("<script>alert(1)</script>\"'&");
    ASSERT_TRUE(wait_until([&] { return get("/").holds("&#60;script&#62;alert(1)"); }));
    const fetched figures = get("/metrics");
    EXPECT_NE(figures.head.find("\r\nContent-Type: text/plain; version=0.0.4"), figures.head.npos);
    EXPECT_EQ(figures_in(figures.body), figures_in(a.console({"metrics"}).out));
    EXPECT_EQ(get("/healthz").body, "\r\n\r\nok\n");
    const std::string page = get("/").body;
    EXPECT_TRUE(in_order(page, {"<h1>ok</h1>", "answered", "notify link: ", "service table",
                                "health check", "&#34;&#39;&#38;<"}));
    for (const char* foreign : {"<script", "http:", "https:", "//", "src=", "@import", "url("})
        EXPECT_EQ(page.find(foreign), page.npos) << foreign;
    add_process("parser", 2);
    EXPECT_TRUE(wait_until([&] { return get("/healthz").head.starts_with("HTTP/1.1 503 "); }));
    const std::string reason = "process parser (row 1) is in state 1, wanted is 2";
    EXPECT_EQ(get("/healthz").body, "\r\n\r\n" + reason + "\n");
    EXPECT_TRUE(in_order(get("/").body, {"<h1>degraded</h1>", reason}));
}

TEST_F(Exporter, LooksOnceASecondWhoeverAsks) {
    serve();
    std::string before, after;
    bool within = false;
    EXPECT_TRUE(wait_until([&] { // unless the machine is so busy that a second passes meanwhile
        const long long from_ms = agt::monotonic_ms();
        before = get("/metrics").body;
        a.noti_que()->info.rear = a.noti_que()->info.rear == 7 ? 8 : 7;
        after = get("/metrics").body;
        within = agt::monotonic_ms() - from_ms < 500 && before == after;
        return within;
    }));
    EXPECT_TRUE(wait_until([&] { return get("/metrics").body != before; }));
}

TEST_F(Exporter, RefusesWhatIsNoRequestOfItsOwn) {
    serve();
    const auto status = [](const fetched& got) { return got.head.substr(0, 12); };
    EXPECT_EQ(status(get("/etc/passwd")), "HTTP/1.1 404");
    EXPECT_EQ(status(get("/../metrics")), "HTTP/1.1 404");
    const std::string body(100000, 'x');
    EXPECT_EQ(status(receive(send("POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\n012345678"))),
              "HTTP/1.1 405");
    EXPECT_EQ(get("/", "Range: bytes=0-,0-,0-\r\n").head, get("/").head);
    EXPECT_EQ(receive(send("GET / HTTP/1.1\r\n" + body)).body.find("<h1>"), body.npos);
    EXPECT_EQ(receive(send(std::string(5000, '\0') + "\r\n\r\n")).body.find("<h1>"), body.npos);
    // All threads are held by peers that say no more; their time is soon over.
    std::vector<agt::unique_fd> slow;
    for (int i = 0; i < 6; ++i)
        slow.push_back(send("GET / HTTP/1.1\r\n"));
    EXPECT_TRUE(get("/").holds("<h1>"));
    EXPECT_EQ(a.run({"exporter", "--listen", "127.0.0.1:" + std::to_string(port)}),
              "2\nkessctl: cannot listen on 127.0.0.1:" + std::to_string(port) +
                  ": Address already in use\n");
    slow.push_back(send("GET / HTTP/1.1\r\n"));
    kill(exporter->pid(), SIGTERM);
    EXPECT_EQ(exporter->wait_exit(2000), 0);
}

// A figure that exists only with TLS or once something has failed counts as well.
TEST_F(Exporter, HasEveryFigureOfTheRulesAndTheDashboard) {
    authority(a).secure(a, server, client);
    serve();
    add_process("parser");
    ASSERT_TRUE(wait_until([&] { return get("/").holds("parser"); }));
    const names there = figures_in(get("/metrics").body);
    const std::string directory = SOURCE_TREE "packaging/prometheus/";
    std::string queries;
    const auto board = nlohmann::json::parse(content(directory + "kessard.json"));
    for (const auto& panel : board["panels"])
        for (const auto& target : panel["targets"])
            queries += target.at("expr").get<std::string>() + "\n";
    std::istringstream rules(content(directory + "kessard.rules.yml"));
    for (std::string line; std::getline(rules, line);)
        queries += line.find("expr:") != line.npos ? line + "\n" : "";
    names wanted = figures_in(queries);
    EXPECT_GT(wanted.size(), 20u);
    for (const std::string& one : there)
        wanted.erase(one);
    EXPECT_EQ(wanted, names());
}

TEST_F(Exporter, ShowsItsPageInABrowser) {
    if (access(CHROMIUM, X_OK) != 0)
        GTEST_SKIP() << "chromium is not installed";
    serve();
    add_process("<img src=x onerror=document.body.id='taken'>");
    ASSERT_TRUE(wait_until([&] { return get("/").holds("onerror"); }));
    const auto dom_of = [&](const std::string& url, const std::string& width) {
        const texts words = {CHROMIUM,
                             "--headless=new",
                             "--no-sandbox",
                             "--disable-gpu",
                             "--disable-background-networking",
                             "--user-data-dir=" + a.path("chromium"),
                             "--window-size=" + width + ",900",
                             "--dump-dom",
                             url};
        return run_program(words, {}, 3 * LIMIT_MS).out;
    };
    const std::string dom = dom_of("http://127.0.0.1:" + std::to_string(port) + "/", "1280");
    EXPECT_TRUE(in_order(dom, {"<h1>ok</h1>", "<svg", "</svg>", "<svg", "</svg>", "service table",
                               ">housekeeping</td>", "onerror", "</html>"}));
    EXPECT_EQ(dom.find("<img"), dom.npos);
    EXPECT_EQ(dom.find("id=\"taken\""), dom.npos);
    // Nothing beside the screen, and no cell of a worker in more lines than it has words.
    a.write_file("page.html", get("/").body + R"(<script>
        const range = document.createRange(), page = document.documentElement;
        const more = cell => (range.selectNodeContents(cell),
            range.getClientRects().length - cell.innerText.split(/[ -]/).length);
        const most = Math.max(0, ...[...document.querySelectorAll("td + td")].map(more));
        page.id = "beside " + Math.max(0, page.scrollWidth - innerWidth) + ", more " + most;</script>)");
    for (const char* width : {"1280", "390"})
        EXPECT_TRUE(in_order(dom_of("file://" + a.path("page.html"), width), {"beside 0, more 0"}))
            << width;
}

} // namespace
