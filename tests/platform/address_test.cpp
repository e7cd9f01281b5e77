#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/test_home.h"
#include "tnef/platform/address.h"

TEST(Addresses, InternetAddressesBecomeServerAddressesWithinTheirOwnLength) {
    const std::pair<const char*, const char*> cases[] = {
        {"  joe@example.com  ", "joe@example.com"},
        {"Joe Bloggs <joe@example.com>", "joe@example.com"},
        {"\"Bloggs, Joe <boss>\" <joe@example.com>", "joe@example.com"},  // '<' inside quotes
        {"joe@example.com (Joe (the) Bloggs)", "joe@example.com"},
        {"<@relay.example,@hop.example:joe@example.com>", "joe@example.com"},
        {"SMTP:joe@example.com", "joe@example.com"},
        {"/O=ORG/OU=SITE/CN=JOE", "/O=ORG/OU=SITE/CN=JOE"},  // no Internet form: kept
        {"<joe@example.com", "joe@example.com"},             // unclosed bracket
        {"", ""},
    };
    for (const auto& [in, out] : cases) {
        // Buffers exactly as large as the contract asks: a longer result would overrun.
        std::string result(std::strlen(in) + 1, '#'), scratch(std::strlen(in) + 1, '#');
        EXPECT_EQ(mim_ArpaToORN(in, result.data(), scratch.data(), 1), *out != '\0' ? 1 : 0) << in;
        EXPECT_STREQ(result.c_str(), out) << in;
    }
}

TEST(Addresses, NodesComeFromTheMailnodeFileAndCompareWithoutCase) {
    TestHome home;
    std::string node = "stale";
    EXPECT_EQ(cl_ReadDefMNode(1, &node), 0);
    EXPECT_EQ(node, "");
    home.write("sys/mailnode", "# the local node\n\n   Mail.Example.COM  \r\nsecond.line\n");
    EXPECT_EQ(cl_ReadDefMNode(1, &node), 1);
    EXPECT_EQ(node, "Mail.Example.COM");

    NmORName name;
    EXPECT_EQ(nm_ParseORN("\"a@b\"@node", &name, nullptr), 0);
    EXPECT_EQ(name.local + "|" + name.node, "\"a@b\"|node") << "an '@' inside quotes is no split";
    EXPECT_EQ(nm_ParseORN(" @node", &name, nullptr), 1);
    EXPECT_EQ(nm_CompareMailnodes("joe@mail.example.com.", node.c_str(), 2, 1), 1);
    EXPECT_EQ(nm_CompareMailnodes("joe@example.com", node.c_str(), 2, 1), 0) << "a parent domain";
    EXPECT_EQ(nm_CompareMailnodes("joe", node.c_str(), 2, 1), 1);
    EXPECT_EQ(nm_CompareMailnodes("joe", node.c_str(), 2, 0), 0);
    EXPECT_EQ(nm_CompareMailnodes("joe@", "", 2, 1), 0) << "an empty node matches nothing";

    char address[32] = "joe@mail.example.com";
    nm_ParseORN(address, &name, nullptr);
    mim_SetOrgUAddress(address, &name, 7);
    EXPECT_STREQ(address, "joe");
    char small[4] = "abc";
    const NmORName longer{"longer-local", "node"};
    mim_SetOrgUAddress(small, &longer, 7);
    EXPECT_STREQ(small, "abc") << "a name that does not fit is not written";
}
