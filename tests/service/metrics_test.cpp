#include "tests/service/service_test.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace {

std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

std::string freePort() {
    const int listening = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ::bind(listening, reinterpret_cast<sockaddr*>(&address), size);
    ::getsockname(listening, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(listening);
    return std::to_string(ntohs(address.sin_port));
}

/// Reads OpenMetrics text from standard input and prints the counter of found files, as Prometheus' own library sees
/// it.
constexpr const char* READ_OPENMETRICS = R"(
import sys
try:
    from prometheus_client.openmetrics.parser import text_string_to_metric_families as parse
except ImportError:
    sys.exit(77)
print(int(sum(s.value for f in parse(sys.stdin.read()) for s in f.samples if s.name == 'keldra_finds_total')))
)";

class MetricsServiceTest : public ServiceTest {
protected:
    void SetUp() override {
        writeFile(service_.file("samples") / "clean", "nothing");
        writeFile(service_.file("samples") / "bad", testFile());
    }
    void startAndScan() {
        ASSERT_TRUE(service_.start());
        EXPECT_EQ(service_.control({"scan", service_.file("samples")}).status, 1);
    }
};

TEST_F(MetricsServiceTest, PrometheusOwnReadersAcceptWhatIsToldAndItIsTrue) {
    startAndScan();
    const std::string text = service_.control({"metrics"}).output;
    for (const char* const line :
         {"keldra_scanned_files_total{lane=\"path\"} 2\n", "keldra_finds_total{lane=\"path\"} 1\n",
          "keldra_protection{level=\"unprotected\"} 1\n", "reason=\"no_signatures\"", "keldra_scanner_up 1\n",
          "process_open_fds "})
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    EXPECT_EQ(service_.control({"metrics", "--format", "xml"}).status, 2);
    const ProcessResult read = runProgram({.argv = {"/usr/bin/python3", "-c", READ_OPENMETRICS}, .input = text});
    if (read.status != 77) {
        EXPECT_EQ(read.output, "1\n") << read.errors;
    }
    if (!std::filesystem::exists("/usr/bin/promtool")) GTEST_SKIP() << "promtool is not installed (package prometheus)";
    const std::string older = service_.control({"metrics", "--format", "prometheus"}).output;
    const ProcessResult checked = runProgram({.argv = {"/usr/bin/promtool", "check", "metrics"}, .input = older});
    EXPECT_EQ(checked.status, 0) << checked.output << checked.errors;
    EXPECT_EQ(checked.errors, "");
    const std::string rules = std::string(SOURCE_DIR) + "/deploy/prometheus/keldra.rules.yml";
    const ProcessResult accepted = runProgram({.argv = {"/usr/bin/promtool", "check", "rules", rules}});
    EXPECT_EQ(accepted.status, 0) << accepted.output << accepted.errors;
}

/// The web server as deployed, with the file that gives Prometheus an address.
class MetricsAddressTest : public MetricsServiceTest {
protected:
    std::unique_ptr<BackgroundProcess> startWebServer() {
        const std::string deploy = std::string(SOURCE_DIR) + "/deploy";
        std::filesystem::create_directories(service_.file("web.d"));
        std::filesystem::create_symlink(deploy + "/metrics.conf", service_.file("web.d") / "metrics.conf");
        const Command command{.argv = {"/usr/sbin/lighttpd", "-D", "-f", deploy + "/lighttpd.conf"},
                              .environment = {{"KELDRA_SCHEME", "http"},
                                              {"KELDRA_ADDRESS", "127.0.0.1"},
                                              {"KELDRA_PORT", consolePort_},
                                              {"KELDRA_METRICS_ADDRESS", "127.0.0.1:" + metricsPort_},
                                              {"KELDRA_CONSOLE", CONSOLE_DIR},
                                              {"KELDRA_WEB_LUA", deploy},
                                              {"KELDRA_WEB_RUN", service_.file("").string()},
                                              {"KELDRA_WEB_MORE", service_.file("web.d")},
                                              {"KELDRA_WEB_LOGS", deploy + "/log-files.conf"},
                                              {"KELDRA_SOCKET", service_.socket()},
                                              {"KELDRA_KEY_FILE", service_.file("key")},
                                              {"KELDRA_LOG", "stderr"},
                                              {"KELDRA_LOCALE", ""}}};
        auto server = std::make_unique<BackgroundProcess>(command, service_.file("web.out"));
        for (int i = 0; i < 500 && server->running() && status(consolePort_, "/") == "000"; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return server;
    }
    static ProcessResult curl(const std::string& port, const std::string& path, const std::string& format) {
        return runProgram({.argv = {"/usr/bin/curl", "-s", "-w", format, "-H",
                                    "Accept: application/openmetrics-text;version=1.0.0,text/plain;q=0.5",
                                    "http://127.0.0.1:" + port + path}});
    }
    std::string status(const std::string& port, const std::string& path) const {
        const std::string output = curl(port, path, "%{http_code}").output;
        return output.size() < 3 ? output : output.substr(output.size() - 3);
    }

    const std::string consolePort_ = freePort();
    const std::string metricsPort_ = freePort();
};

TEST_F(MetricsAddressTest, PrometheusIsAnsweredAtItsOwnAddressAndOnlyThere) {
    if (!std::filesystem::exists("/usr/sbin/lighttpd")) GTEST_SKIP() << "lighttpd is not installed (package lighttpd)";
    startAndScan();
    const auto server = startWebServer();
    ASSERT_TRUE(server->running()) << readFile(service_.file("web.out"));
    const std::string text = curl(metricsPort_, "/metrics", "%{content_type}").output;
    EXPECT_NE(text.find("keldra_finds_total{lane=\"path\"} 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("# EOF\napplication/openmetrics-text"), std::string::npos);
    for (const char* const path :
         {"/", "/index.html", "/NorvLinux/scanoption.cgi", "/metrics/metrics.cgi", "/metrics/x"})
        EXPECT_EQ(status(metricsPort_, path), "403") << path;
    for (const char* const path : {"/metrics", "/NorvLinux/metrics.cgi", "/metrics/metrics.cgi"})
        EXPECT_EQ(status(consolePort_, path), "404") << path;
    service_.stop();
    EXPECT_EQ(status(metricsPort_, "/metrics"), "503");
}

}  // namespace
