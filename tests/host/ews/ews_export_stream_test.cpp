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

  // Every byte value, with line breaks, cut into two pieces at every place:
  // whole quanta, quanta cut between pieces and whitespace all decode alike.
  std::string all;
  for (int i = 0; i < 256; ++i)
    all.push_back(static_cast<char>(i));
  const std::string text =
    "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7PD0+P0BB\r\n"
    "QkNERUZHSElKS0xNTk9QUVJTVFVWV1hZWltcXV5fYGFiY2RlZmdoaWprbG1ub3BxcnN0dXZ3eHl6e3x9fn+AgYKD\r\n"
    "hIWGh4iJiouMjY6PkJGSk5SVlpeYmZqbnJ2en6ChoqOkpaanqKmqq6ytrq+wsbKztLW2t7i5uru8vb6/wMHCw8TF\r\n"
    "xsfIycrLzM3Oz9DR0tPU1dbX2Nna29zd3t/g4eLj5OXm5+jp6uvs7e7v8PHy8/T19vf4+fr7/P3+/w==";
  for (size_t cut = 0; cut <= text.size(); ++cut)
  {
    EWS_b64_Decoder pieces;
    ASSERT_TRUE(pieces.feed(text.data(), cut)) << cut;
    ASSERT_TRUE(pieces.feed(text.data() + cut, text.size() - cut)) << cut;
    ASSERT_TRUE(pieces.finish()) << cut;
    ASSERT_EQ(text_of(pieces.take()), all) << cut;
  }
  // A bad character inside a run of whole quanta, and a symbol after padding.
  EWS_b64_Decoder inside;
  EXPECT_FALSE(inside.feed("QUJD\x80RUZH", 9));
  EWS_b64_Decoder after_pad;
  EXPECT_FALSE(after_pad.feed("QQ==QUJD", 8));
}
