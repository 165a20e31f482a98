// The HTTP side of exo-sim: kept-alive connections serve many requests without being closed.
#include <gtest/gtest.h>

#include <curl/curl.h>

#include <set>

#include "sim_harness.h"

using namespace exo_sim_test;

namespace
{

size_t discard_cb(char*, size_t size, size_t n, void*) { return size * n; }

}  // namespace

TEST(ExoSimServer, TwoHundredRequestsShareOneKeptAliveConnection)
{
  Sim_Fixture sim;
  std::string token = sim.token(k_ews_scope);
  std::string envelope = soap_envelope(impersonation_header(k_admin), find_folder_body(distinguished("inbox")));
  CURL* curl = curl_easy_init();
  curl_slist* headers = nullptr;
  headers = curl_slist_append(headers, "Content-Type: text/xml; charset=utf-8");
  headers = curl_slist_append(headers, ("Authorization: Bearer " + token).c_str());
  headers = curl_slist_append(headers, (std::string("X-AnchorMailbox: ") + k_admin).c_str());
  std::string url = sim.base() + "/EWS/Exchange.asmx";
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, envelope.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard_cb);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
  long connects = 0, answered = 0;
  std::set<long> local_ports;
  for (int k = 0; k < 200; ++k)
  {
    ASSERT_EQ(curl_easy_perform(curl), CURLE_OK) << "request " << k;
    long status = 0, made = 0, port = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl, CURLINFO_NUM_CONNECTS, &made);
    curl_easy_getinfo(curl, CURLINFO_LOCAL_PORT, &port);
    if (status == 200)
      ++answered;
    connects += made;
    local_ports.insert(port);
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  EXPECT_EQ(answered, 200);
  EXPECT_EQ(connects, 1) << "the server closed a kept-alive connection";
  EXPECT_EQ(local_ports.size(), 1u);
}
