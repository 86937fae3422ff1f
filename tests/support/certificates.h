// Certificates, made with the openssl command, for an agent and its peers.
#pragma once

#include "served_agent.h"
#include "tls.h"

namespace test_support {

// A CA in a directory of an agent.
class authority {
  public:
    explicit authority(const agent& a, const std::string& name = "ca") : a_(a), name_(name) {
        std::filesystem::create_directories(a.path("tls"));
        shell("openssl req -x509 " + KEY + " -days 30 -subj /CN=" + name + " -keyout " + name +
              ".key -out " + name + ".crt");
    }
    // Makes NAME.key, which its group may read, and NAME.crt, with further words for its request
    // and its signature.
    void issue(const std::string& name, const std::string& names = "",
               const std::string& request = "", const std::string& days = "-days 20") const {
        shell("openssl req -new " + KEY + " -subj /CN=" + name + " -keyout " + name + ".key -out " +
              name + ".csr " + (names.empty() ? "" : "-addext subjectAltName=" + names) + " " +
              request + " && openssl x509 -req -in " + name + ".csr -CA " + name_ + ".crt -CAkey " +
              name_ + ".key -copy_extensions copy " + days + " -out " + name +
              ".crt && chmod 640 " + name + ".key");
    }
    // Runs a command line in the directory.
    void shell(const std::string& line) const {
        const program_result ran =
            run_program({"/bin/sh", "-ec", "cd " + a_.path("tls") + "\n" + line}, a_.variables);
        EXPECT_EQ(ran.status, 0) << line << "\n" << ran.err;
    }
    std::shared_ptr<agt::tls_identity> identity(const std::string& name) const {
        auto opened = std::make_shared<agt::tls_identity>();
        EXPECT_EQ(opened->open({a_.path("tls/" + name + ".crt"), a_.path("tls/" + name + ".key"),
                                a_.path("tls/ca.crt")}),
                  "");
        return opened;
    }
    // TLS for an agent that starts afterwards: commanded by operator.example, serving as
    // agent.example, reporting to a server for 127.0.0.1.
    void secure(agent& a, kessctl::stand_in& server, kessctl::command_client& client) const {
        issue("agent", "DNS:agent.example");
        issue("server", "DNS:server.example,IP:127.0.0.1");
        issue("operator", "DNS:operator.example");
        for (const auto& [key, value] : {std::pair{"CERT_FILE", "tls/agent.crt"},
                                         {"KEY_FILE", "tls/agent.key"},
                                         {"CA_FILE", "tls/ca.crt"},
                                         {"PEER_NAMES", "127.0.0.9,operator.example"}})
            a.set("TLS", key, value);
        server.stop();
        server.use_tls(identity("server"));
        EXPECT_EQ(server.start("127.0.0.1", a.server_port()), "");
        client.use_tls(identity("operator"), "agent.example");
    }

  private:
    inline static const std::string KEY = "-newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc";
    const agent& a_;
    std::string name_;
};

} // namespace test_support
