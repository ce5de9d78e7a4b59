// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/HttpReply.h"

#include <gmock/gmock.h>

#include <vector>

namespace {

using SDK::HttpReply;

const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";

struct Row {
    std::string text;
    int status;
    std::string body;
    std::string error = {};
};

TEST(HttpReplyTest, ReadsEveryFramingHoweverItIsCut)
{
    const std::string inBody = "the connection ended within the reply's body";
    const std::vector<Row> rows{
        {"HTTP/1.0 404 Not Found\r\nServer: x\r\n\r\ngone", 404, "gone"},
        {"HTTP/1.1 200\nCONTENT-length:5\n\nhello, and more than was said", 200, "hello"},
        {ok + "transfer-encoding: Chunked\r\n\r\n5\r\nhello\r\n00A; x=y\r\n, world!!!\r\n0\r\nT: v\r\n\r\n", 200,
         "hello, world!!!"},
        {ok + "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n1\r\n\n\r\n0\r\n\r\n", 200, "\n"},
        {"HTTP/1.1 100 Continue\r\nContent-Length: 9\r\n\r\n" + ok + "Content-Length: 2\r\n\r\nok", 200, "ok"},
        {ok + "Content-Length: 9\r\n\r\nhello", 200, "hello", inBody},
        {chunked + "5\r\nhello\r\n", 200, "hello", inBody},
        {ok + "Content-Length: 5\r\n", 0, "", "the connection ended before a reply"},
    };
    for (const Row& row : rows) {
        for (std::size_t cut = 0; cut <= row.text.size(); ++cut) {
            HttpReply reply;
            std::string body;
            EXPECT_TRUE(reply.Feed(row.text.substr(0, cut), body) && reply.Feed(row.text.substr(cut), body));
            EXPECT_EQ(reply.Close(), row.error.empty());
            ASSERT_EQ(std::tie(body, reply.Error()), std::tie(row.body, row.error)) << row.text << " cut at " << cut;
            EXPECT_EQ(reply.Status(), row.status);
        }
    }
}

TEST(HttpReplyTest, RefusesNonsenseAndWhatHasNoEnd)
{
    std::string trailers;
    while (trailers.size() < HttpReply::maxHeadBytes) {
        trailers += "X: y\r\n";
    }
    const std::vector<std::string> rows{
        "SSH-2.0-OpenSSH\r\n",
        "HTTP/1.1 -12 OK\r\n",
        ok + "no colon\r\n",
        ok + "Content-Length: 99999999999999999999\r\n",
        ok + "Content-Length: 1\r\nContent-Length: 2\r\n",
        ok + "Transfer-Encoding: gzip\r\n",
        ok + std::string(HttpReply::maxHeadBytes, 'x'),
        chunked + "ffffffffffffffff\r\n",
        chunked + "1\r\nab\r\n",
        chunked + std::string(HttpReply::maxSizeLineBytes, '0'),
        chunked + "0\r\n" + trailers,
    };
    for (const std::string& text : rows) {
        HttpReply reply;
        std::string body;
        bool isGood = true;
        for (const char& byte : text) {
            isGood = reply.Feed({&byte, 1}, body);
        }
        EXPECT_FALSE(isGood) << text.substr(0, 200);
    }
}

}  // namespace
