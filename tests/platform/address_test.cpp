#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/test_home.h"
#include "tnef/platform/address.h"

TEST(Addresses, InternetAddressesBecomeServerAddresses) {
    const struct {
        const char* in;
        const char* out;
    } cases[] = {
        {"joe@example.com", "joe@example.com"},
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
    for (const auto& c : cases) {
        // Buffers exactly as large as the contract asks: a longer result would overrun.
        std::string result(std::strlen(c.in) + 1, '#'), scratch(std::strlen(c.in) + 1, '#');
        const int found = mim_ArpaToORN(c.in, result.data(), scratch.data(), 1);
        EXPECT_STREQ(result.c_str(), c.out) << c.in;
        EXPECT_EQ(found, *c.out != '\0' ? 1 : 0) << c.in;
    }
}

TEST(Addresses, OrNamesSplitAtTheLastAtOutsideQuotes) {
    const struct {
        const char* in;
        const char* local;
        const char* node;
        int status;
    } cases[] = {
        {"joe@node", "joe", "node", 0},
        {"joe", "joe", "", 0},
        {"\"a@b\"@node", "\"a@b\"", "node", 0},
        {"a@b@node", "a@b", "node", 0},
        {" joe @ node ", "joe", "node", 0},
        {"@node", "", "node", 1},
        {"", "", "", 1},
    };
    for (const auto& c : cases) {
        NmORName name;
        int status = -1;
        EXPECT_EQ(nm_ParseORN(c.in, &name, &status), c.status) << c.in;
        EXPECT_EQ(status, c.status) << c.in;
        EXPECT_EQ(name.local, c.local) << c.in;
        EXPECT_EQ(name.node, c.node) << c.in;
    }
}

TEST(Addresses, TheDefaultMailNodeComesFromItsFileAndComparesWithoutCase) {
    TestHome home;
    std::string node = "stale";
    EXPECT_EQ(cl_ReadDefMNode(1, &node), 0);
    EXPECT_EQ(node, "") << "no file: no node";

    home.write("sys/mailnode", "# the local node\n\n   Mail.Example.COM  \r\nsecond.line\n");
    EXPECT_EQ(cl_ReadDefMNode(1, &node), 1);
    EXPECT_EQ(node, "Mail.Example.COM");
    EXPECT_EQ(cl_ReadDefMNode(2, &node), 0);
    home.write("sys/mailnode", "# nothing but comments\n");
    EXPECT_EQ(cl_ReadDefMNode(1, &node), 0);

    EXPECT_EQ(nm_CompareMailnodes("joe@mail.example.com", "Mail.Example.COM", 2, 1), 1);
    EXPECT_EQ(nm_CompareMailnodes("joe@mail.example.com.", "mail.example.com", 2, 1), 1);
    EXPECT_EQ(nm_CompareMailnodes("joe@other.example.com", "mail.example.com", 2, 1), 0);
    EXPECT_EQ(nm_CompareMailnodes("joe@example.com", "mail.example.com", 2, 1), 0)
        << "a parent domain is another node";
    EXPECT_EQ(nm_CompareMailnodes("joe", "mail.example.com", 2, 1), 1);
    EXPECT_EQ(nm_CompareMailnodes("joe", "mail.example.com", 2, 0), 0);
    EXPECT_EQ(nm_CompareMailnodes("MAIL.example.com", "mail.example.com", 1, 0), 1);
    EXPECT_EQ(nm_CompareMailnodes("joe@", "", 2, 1), 0) << "an empty node matches nothing";
}

TEST(Addresses, LocalFormRewriteNeverGrowsTheText) {
    char address[32] = "joe@mail.example.com";
    NmORName name;
    nm_ParseORN(address, &name, nullptr);
    mim_SetOrgUAddress(address, &name, 7);
    EXPECT_STREQ(address, "joe");

    char full[32] = " joe@node ";
    nm_ParseORN(full, &name, nullptr);
    mim_SetOrgUAddress(full, &name, 0);
    EXPECT_STREQ(full, "joe@node");

    char small[4] = "abc";
    NmORName other{"longer-local", "node"};
    mim_SetOrgUAddress(small, &other, 7);
    EXPECT_STREQ(small, "abc") << "a name that does not fit is not written";
}
