#include "host/ews/ews_b64_decoder.h"
#include "host/ews/ews_export_stream.h"

#include <gtest/gtest.h>

namespace
{
// Microsoft's reference answer shape: default-namespace messages, data wrapped
// over lines, a failed item in between.
const std::string answer =
  "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
  "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body>\n"
  "<m:ExportItemsResponse xmlns:m=\"http://schemas.microsoft.com/exchange/services/2006/messages\">"
  "<m:ResponseMessages>\n"
  "  <m:ExportItemsResponseMessage ResponseClass=\"Success\"><m:ResponseCode>NoError</m:ResponseCode>"
  "<m:ItemId Id=\"A\" ChangeKey=\"x\"/><m:Data>\n    AQAAAAgA\n    AAA=\n  </m:Data></m:ExportItemsResponseMessage>\n"
  "  <m:ExportItemsResponseMessage ResponseClass=\"Error\"><m:MessageText>\n     The change key is invalid.\n  "
  "</m:MessageText><m:ResponseCode>\n     ErrorInvalidChangeKey\n  </m:ResponseCode>"
  "<m:DescriptiveLinkKey>0</m:DescriptiveLinkKey></m:ExportItemsResponseMessage>\n"
  "  <m:ExportItemsResponseMessage ResponseClass=\"Success\"><m:ResponseCode>NoError</m:ResponseCode>"
  "<m:ItemId Id=\"C\"/><m:Data>aGVsbG8=</m:Data></m:ExportItemsResponseMessage>\n"
  "</m:ResponseMessages></m:ExportItemsResponse></s:Body></s:Envelope>\n";

std::string text_of(const EWS_b64_Data& d)
{
  return d.ptr ? std::string(reinterpret_cast<const char*>(d.ptr.get()), static_cast<size_t>(d.size)) : "";
}
}  // namespace

TEST(EwsExportStream, ReadsEachItemAsItArrivesInPiecesOfAnySize)
{
  for (size_t piece : {1u, 7u, 4096u})
  {
    EWS_Export_Requests requests(3);
    std::vector<EWS_Export_Request*> batch = {&requests[0], &requests[1], &requests[2]};
    EWS_Export_Stream stream(batch);
    for (size_t at = 0; at < answer.size(); at += piece)
      ASSERT_TRUE(stream.feed(answer.data() + at, std::min(piece, answer.size() - at)));
    ASSERT_TRUE(stream.finish());
    EXPECT_EQ(stream.answered(), 3u);
    EXPECT_TRUE(requests[0].status.ok());
    EXPECT_EQ(text_of(requests[0].data), std::string("\x01\0\0\0\x08\0\0\0", 8));
    EXPECT_EQ(requests[1].status.kind, HOST_STATUS_PERMANENT);
    EXPECT_EQ(requests[1].status.code, "ErrorInvalidChangeKey");
    EXPECT_EQ(requests[1].status.message, "The change key is invalid.");
    EXPECT_FALSE(requests[1].data.ptr);
    EXPECT_EQ(text_of(requests[2].data), "hello");
  }
}

TEST(EwsExportStream, ACutAnswerKeepsTheItemsBeforeTheCutAndDamagedDataFailsOneItem)
{
  std::string damaged = answer;
  damaged.replace(damaged.find("aGVsbG8="), 8, "aGV*bG8=");
  const std::string cut = answer.substr(0, answer.find("<m:ItemId Id=\"C\"")) + "=== Truncated Data ===";
  EWS_Export_Requests requests(3);
  std::vector<EWS_Export_Request*> batch = {&requests[0], &requests[1], &requests[2]};
  EWS_Export_Stream stream(batch);
  stream.feed(cut.data(), cut.size());
  EXPECT_FALSE(stream.finish());
  EXPECT_EQ(stream.answered(), 2u);
  EXPECT_TRUE(requests[0].data.ptr);
  EXPECT_FALSE(requests[2].data.ptr);

  EWS_Export_Stream again(batch);
  ASSERT_TRUE(again.feed(damaged.data(), damaged.size()));
  ASSERT_TRUE(again.finish());
  EXPECT_TRUE(requests[0].status.ok());
  EXPECT_EQ(requests[2].status.kind, HOST_STATUS_PERMANENT);
  EXPECT_EQ(requests[2].status.code, "invalid export data");

  // The decoder agrees with itself however the text is split.
  EWS_b64_Decoder decoder;
  for (const char* part : {"aG", "VsbG8", "gd29y", "bGQ", "="})
    ASSERT_TRUE(decoder.feed(part, std::char_traits<char>::length(part)));
  ASSERT_TRUE(decoder.finish());
  EXPECT_EQ(text_of(decoder.take()), "hello world");
  EWS_b64_Decoder bad;
  EXPECT_FALSE(bad.feed("aGVsbG8=aGVs", 12));
  EWS_b64_Decoder short_text;
  EXPECT_TRUE(short_text.feed("aGVsbG8", 7));
  EXPECT_FALSE(short_text.finish());
}
