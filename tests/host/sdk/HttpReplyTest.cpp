// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/HttpReply.h"

#include <gmock/gmock.h>

#include <vector>

namespace {

using SDK::HttpReply;

struct Outcome {
    int status = 0;
    std::string body;
    std::string error;

    bool operator==(const Outcome&) const = default;
};

// Reads a reply that comes in these pieces and is followed by the end of the connection.
Outcome Read(const std::vector<std::string>& pieces)
{
    HttpReply reply;
    Outcome outcome;
    bool isGood = true;
    for (const std::string& piece : pieces) {
        isGood = isGood && reply.Feed(piece, outcome.body);
    }
    isGood = isGood && reply.Close();
    outcome.status = reply.Status();
    outcome.error = reply.Error();
    EXPECT_EQ(isGood, outcome.error.empty());
    EXPECT_EQ(isGood, reply.IsComplete());
    return outcome;
}

struct Row {
    std::string text;
    int status;
    std::string body;
};

TEST(HttpReplyTest, ReadsEveryFramingHoweverItIsCut)
{
    const std::vector<Row> rows{
        {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", 200, "hello"},
        {"HTTP/1.0 404 Not Found\r\nServer: x\r\n\r\ngone", 404, "gone"},
        {"HTTP/1.1 200\nCONTENT-length:5\n\nhello", 200, "hello"},
        {"HTTP/1.1 200 OK\r\ntransfer-encoding: Chunked\r\n\r\n5\r\nhello\r\n00A; x=y\r\n, world!!!\r\n0\r\nT: "
         "v\r\n\r\n",
         200, "hello, world!!!"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n1\r\n\n\r\n0\r\n\r\n", 200, "\n"},
        {"HTTP/1.1 100 Continue\r\nContent-Length: 9\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", 200, "ok"},
        {"HTTP/1.1 204 No Content\r\n\r\n", 204, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\nmore than was said", 200, ""},
        {"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 2\r\n\r\nok", 200, "ok"},
    };
    for (const Row& row : rows) {
        const Outcome expected{row.status, row.body, ""};
        const std::string& text = row.text;
        for (std::size_t cut = 0; cut <= text.size(); ++cut) {
            ASSERT_EQ(Read({text.substr(0, cut), text.substr(cut)}), expected) << text << " cut at " << cut;
        }
        std::vector<std::string> bytes;
        for (std::size_t i = 0; i < text.size(); ++i) {
            bytes.push_back(text.substr(i, 1));
        }
        EXPECT_EQ(Read(bytes), expected) << text;
    }
}

TEST(HttpReplyTest, RefusesNonsense)
{
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::vector<std::string> rows{
        "SSH-2.0-OpenSSH\r\n",
        "HTTP/2 200 OK\r\n",
        "HTTP/1.1 099 X\r\n\r\n",
        "HTTP/1.1 -12 OK\r\n\r\n",
        ok + "no colon\r\n\r\n",
        ok + "Content-Length: 5x\r\n\r\n",
        ok + "Content-Length: 99999999999999999999\r\n\r\n",
        ok + "Content-Length: 1\r\nContent-Length: 2\r\n\r\n",
        ok + "Transfer-Encoding: gzip\r\n\r\n",
        ok + "Transfer-Encoding: chunked\r\n\r\nxyz\r\n",
        ok + "Transfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\n",
        ok + "Transfer-Encoding: chunked\r\n\r\n1\r\nab\r\n",
        ok + "Transfer-Encoding: chunked\r\n\r\n" + std::string(HttpReply::maxSizeLineBytes, '0') + "\r\n",
    };
    for (const std::string& text : rows) {
        HttpReply reply;
        std::string body;
        EXPECT_FALSE(reply.Feed(text, body)) << text.substr(0, 200);
        EXPECT_NE(reply.Error(), "");
        EXPECT_FALSE(reply.Feed(ok, body));  // and stays refused
    }
}

TEST(HttpReplyTest, TellsThatAReplyWasCutShortAndKeepsWhatCame)
{
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string inBody = "the connection ended within the reply's body";
    EXPECT_EQ(Read({ok + "Content-Length: 9\r\n\r\nhello"}), (Outcome{200, "hello", inBody}));
    EXPECT_EQ(Read({ok + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n"}), (Outcome{200, "hello", inBody}));
    EXPECT_EQ(Read({ok + "Content-Length: 5\r\n"}), (Outcome{0, "", "the connection ended before a reply"}));
}

TEST(HttpReplyTest, BoundsTheHeadAndTheTrailers)
{
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n0\r\n";
    for (const std::string& begin : {std::string(), ok, chunked}) {
        for (const std::string& piece : {std::string("X"), std::string("X: y\r\n"), std::string(1 << 20, 'x')}) {
            HttpReply reply;
            std::string body;
            reply.Feed(begin, body);
            std::size_t fed = 0;
            while (fed <= HttpReply::maxHeadBytes && reply.Feed(piece, body)) {
                fed += piece.size();
            }
            EXPECT_LE(fed, HttpReply::maxHeadBytes);
            EXPECT_NE(reply.Error(), "");
        }
    }
}

}  // namespace
