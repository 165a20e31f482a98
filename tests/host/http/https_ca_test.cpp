#include "host/http/http_session_factory.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <cstdlib>
#include <fstream>
#include <thread>

namespace
{
// A test CA and a server certificate it signed for "localhost" only, made with
// the openssl tool in a temporary directory removed afterwards.
class Test_CA
{
public:
  Test_CA()
  {
    char tmpl[] = "/tmp/test_ca_XXXXXX";
    dir_ = mkdtemp(tmpl);
    std::ofstream(dir_ + "/ext.cnf") << "subjectAltName=DNS:localhost\nbasicConstraints=CA:FALSE\n";
    const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes ";
    ok_ = run("openssl req -x509" + ec + "-keyout ca.key -out ca.pem -days 2 -subj /CN=Test-CA") &&
          run("openssl req" + ec + "-keyout server.key -out server.csr -subj /CN=localhost") &&
          run(
            "openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem "
            "-days 2 -extfile ext.cnf");
  }
  ~Test_CA() { EXPECT_EQ(std::system(("rm -rf '" + dir_ + "'").c_str()), 0); }

  bool ok() const { return ok_; }
  std::string file(const char* name) const { return dir_ + "/" + name; }

private:
  bool run(const std::string& command)
  {
    return std::system(("cd '" + dir_ + "' && " + command + " >/dev/null 2>&1").c_str()) == 0;
  }

  std::string dir_;
  bool ok_ = false;
};

bool fetch(const std::string& host, int port, Http_Transport_Error& error)
{
  HTTP_Session_Ptr session = HTTP_Session_Factory::create(host, port, true, 5, 5);
  HTTP_Request request(HTTP_METHOD_GET, "/hello");
  HTTP_Response response;
  const bool done = session->perform(request, response);
  error = session->transport_error();
  return done && response.body() == "hello";
}
}  // namespace

TEST(Https, AConfiguredCaFileIsTrustedAndHostNamesAreChecked)
{
  Test_CA ca;
  ASSERT_TRUE(ca.ok()) << "the openssl tool could not make the test certificates";
  httplib::SSLServer server(ca.file("server.pem").c_str(), ca.file("server.key").c_str());
  ASSERT_TRUE(server.is_valid());
  server.Get("/hello", [](const httplib::Request&, httplib::Response& res) { res.set_content("hello", "text/plain"); });
  const int port = server.bind_to_any_port("127.0.0.1");
  ASSERT_GT(port, 0);
  std::thread serving([&] { server.listen_after_bind(); });
  while (!server.is_running())
    std::this_thread::sleep_for(std::chrono::milliseconds(1));

  Http_Transport_Error error = HTTP_TRANSPORT_OK;
  // Without the CA file the system's trust store does not know the test CA.
  HTTP_Session_Factory::set_ca_file("");
  EXPECT_FALSE(fetch("localhost", port, error));
  EXPECT_EQ(error, HTTP_TRANSPORT_TLS);

  HTTP_Session_Factory::set_ca_file(ca.file("ca.pem"));
  EXPECT_TRUE(fetch("localhost", port, error)) << error;
  // The certificate names "localhost" only: the same server by address is refused.
  EXPECT_FALSE(fetch("127.0.0.1", port, error));
  EXPECT_EQ(error, HTTP_TRANSPORT_TLS);

  // A file without certificates fails the handshake rather than trusting nothing new silently.
  HTTP_Session_Factory::set_ca_file(ca.file("ext.cnf"));
  EXPECT_FALSE(fetch("localhost", port, error));
  HTTP_Session_Factory::set_ca_file("");

  server.stop();
  serving.join();
}
