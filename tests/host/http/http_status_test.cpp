#include "host/http/http_status.h"
#include "host/http/retry_policy.h"
#include "host/http/uri.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <ctime>

TEST(Loopback, DecidedByTheAddressNotItsText)
{
  for (const char* host : {"localhost", "LocalHost", "127.0.0.1", "127.255.3.4", "::1", "[::1]", "0:0:0:0:0:0:0:1"})
    EXPECT_TRUE(is_loopback_host(host)) << host;
  for (const char* host : {"127.example.com", "127.0.0.1.nip.io", "128.0.0.1", "::2", "[::ffff:10.0.0.1]", "",
                           "localhost.evil.com", "10.0.0.127"})
    EXPECT_FALSE(is_loopback_host(host)) << host;
}

TEST(HttpStatus, RetryAfterAndClassification)
{
  HTTP_Response response;
  EXPECT_EQ(http_retry_after_ms(response), -1);
  response.headers().put("Retry-After", "7");
  EXPECT_EQ(http_retry_after_ms(response), 7000);
  response.headers().put("Retry-After", "soon");
  EXPECT_EQ(http_retry_after_ms(response), -1);
  response.headers().put("Retry-After", "Wed, 21 Oct 2015 07:28:00 GMT");
  EXPECT_EQ(http_retry_after_ms(response), 0);  // in the past
  char date[64];
  const time_t later = std::time(nullptr) + 120;
  std::strftime(date, sizeof(date), "%a, %d %b %Y %H:%M:%S GMT", std::gmtime(&later));
  response.headers().put("Retry-After", date);
  EXPECT_GT(http_retry_after_ms(response), 100000);
  EXPECT_LE(http_retry_after_ms(response), 120000);

  response.headers().put("Retry-After", "3");
  const struct
  {
    long status;
    Host_Status_Kind kind;
    long wait;
  } cases[] = {
    {200, HOST_STATUS_OK, -1},          {204, HOST_STATUS_OK, -1},        {429, HOST_STATUS_THROTTLED, 3000},
    {503, HOST_STATUS_THROTTLED, 3000}, {408, HOST_STATUS_TRANSIENT, -1}, {500, HOST_STATUS_TRANSIENT, -1},
    {502, HOST_STATUS_TRANSIENT, -1},   {504, HOST_STATUS_TRANSIENT, -1}, {401, HOST_STATUS_UNAUTHORIZED, -1},
    {403, HOST_STATUS_PERMANENT, -1},   {404, HOST_STATUS_PERMANENT, -1}, {409, HOST_STATUS_PERMANENT, -1}};
  for (const auto& c : cases)
  {
    response.status(c.status);
    const Host_Status status = http_answer_status(response, "why");
    EXPECT_EQ(status.kind, c.kind) << c.status;
    EXPECT_EQ(status.retry_after_ms, c.wait) << c.status;
    if (c.kind != HOST_STATUS_OK)
    {
      EXPECT_EQ(status.text(), "HTTP " + std::to_string(c.status) + ": why");
    }
  }
}

TEST(HttpStatus, AnAnswerSaysWhetherTheRequestWasApplied)
{
  HTTP_Response response;
  for (long status : {429L, 503L})
  {
    response.status(status);
    EXPECT_EQ(http_answer_outcome(response), HTTP_OUTCOME_NOT_APPLIED) << status;
  }
  for (long status : {502L, 504L})
  {
    response.status(status);
    EXPECT_EQ(http_answer_outcome(response), HTTP_OUTCOME_UNKNOWN) << status;
  }
  for (long status : {200L, 400L, 401L, 404L, 500L})
  {
    response.status(status);
    EXPECT_EQ(http_answer_outcome(response), HTTP_OUTCOME_ANSWERED) << status;
  }
  EXPECT_STREQ(http_outcome_name(HTTP_OUTCOME_UNKNOWN), "unknown");
  EXPECT_STREQ(http_outcome_name(HTTP_OUTCOME_NOT_APPLIED), "not applied");
}

TEST(RetryPolicy, RetriesByKindScopeAndBudget)
{
  const Host_Status now = Host_Status::make(HOST_STATUS_THROTTLED, "HTTP 429", "", 0);
  const Host_Status transient = Host_Status::make(HOST_STATUS_TRANSIENT, "connection", "reset");
  const Host_Status far = Host_Status::make(HOST_STATUS_THROTTLED, "HTTP 503", "", 3600 * 1000);

  Retry_Policy policy(30);
  EXPECT_TRUE(policy.wait_before_retry(now));
  EXPECT_TRUE(policy.wait_before_retry(transient));
  EXPECT_EQ(policy.attempts(), 3);
  // A wait beyond the budget is not shortened: the policy gives up at once.
  EXPECT_FALSE(policy.wait_before_retry(far));
  for (Host_Status_Kind kind : {HOST_STATUS_PERMANENT, HOST_STATUS_UNAUTHORIZED, HOST_STATUS_CANCELLED})
    EXPECT_FALSE(policy.wait_before_retry(Host_Status::make(kind, "", "")));
  EXPECT_EQ(policy.attempts(), 3);

  Retry_Policy throttled_only(30, Retry_Policy::RETRY_THROTTLED);
  EXPECT_FALSE(throttled_only.wait_before_retry(transient));
  EXPECT_TRUE(throttled_only.wait_before_retry(now));

  Retry_Policy once(0);
  EXPECT_FALSE(once.wait_before_retry(now));

  int calls = 0;
  Retry_Policy loop(30);
  const Host_Status last =
    run_with_retry_T(loop,
                     [&]
                     {
                       ++calls;
                       return calls < 3 ? now : Host_Status::make(HOST_STATUS_PERMANENT, "HTTP 404", "gone");
                     });
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(last.code, "HTTP 404");
}
