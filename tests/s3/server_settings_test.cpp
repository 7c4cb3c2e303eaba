#include "integrations/s3/server_settings.h"

#include <fstream>
#include <map>

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "tests/support/temp_directory.h"

namespace s3_test {
namespace {

using kelm::s3::readServerSettings;
using kelm::s3::ServerSettings;

class ServerSettingsReading : public testing::Test {
protected:
    ServerSettings read() const {
        return readServerSettings([this](char const* name) -> char const* {
            auto const found = variables.find(name);
            return found == variables.end() ? nullptr : found->second.c_str();
        });
    }

    std::string write(std::string const& name, std::string const& content) const {
        std::filesystem::path const path = folder.path() / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << content;
        return path.string();
    }

    testing::AssertionResult refuses(std::string const& words) const {
        return test_support::throwsError("The settings for buckets are not valid: " + words, {},
                                         [this] { read(); });
    }

    test_support::TempDirectory folder;
    std::map<std::string, std::string> variables;
};

TEST_F(ServerSettingsReading, WithoutAnyRequestsAreNotSigned) {
    ServerSettings const settings = read();
    EXPECT_FALSE(settings.keys);
    EXPECT_EQ(settings.region, "us-east-1");
    EXPECT_FALSE(settings.hasEndpoint());
    EXPECT_EQ(settings.certificatesFile, "");
}

TEST_F(ServerSettingsReading, OfTheEnvironmentComeFirst) {
    variables = {{"AWS_ACCESS_KEY_ID", "id"},
                 {"AWS_SECRET_ACCESS_KEY", "secret\n"},
                 {"AWS_SESSION_TOKEN", "token"},
                 {"AWS_DEFAULT_REGION", "eu-west-1"},
                 {"AWS_ENDPOINT_URL", "https://other.example"},
                 {"AWS_ENDPOINT_URL_S3", "HTTP://Host.example:8080/base/"},
                 {"AWS_CA_BUNDLE", "/ca.pem"},
                 {"HOME", folder.path().string()}};
    write(".aws/credentials", "[default]\naws_access_key_id=a\naws_secret_access_key=b\n");
    ServerSettings const settings = read();
    ASSERT_TRUE(settings.keys);
    EXPECT_EQ(settings.keys->id, "id");
    EXPECT_EQ(settings.keys->secret, "secret");
    EXPECT_EQ(settings.keys->sessionToken, "token");
    EXPECT_EQ(settings.region, "eu-west-1");
    EXPECT_EQ(settings.endpointScheme, "http");
    EXPECT_EQ(settings.endpointHost, "host.example:8080");
    EXPECT_EQ(settings.endpointPath, "/base");
    EXPECT_EQ(settings.certificatesFile, "/ca.pem");
}

TEST_F(ServerSettingsReading, AProfileIsInBothFiles) {
    variables = {{"HOME", folder.path().string()}, {"AWS_PROFILE", "backup"}};
    write(".aws/credentials", "# keys\n[default]\naws_access_key_id=wrong\n"
                              "[backup]\n aws_nested = x\naws_access_key_id = id \n"
                              "AWS_SECRET_ACCESS_KEY=se=cret\n");
    write(".aws/config", "[default]\nregion=wrong\n[profile backup]\nregion = eu-north-1\n"
                         "aws_access_key_id = later\ns3 =\n  endpoint_url = http://nested\n"
                         "endpoint_url = https://host.example\n");
    ServerSettings const settings = read();
    ASSERT_TRUE(settings.keys);
    EXPECT_EQ(settings.keys->id, "id");
    EXPECT_EQ(settings.keys->secret, "se=cret");
    EXPECT_EQ(settings.region, "eu-north-1");
    EXPECT_EQ(settings.endpointHost, "host.example");
}

TEST_F(ServerSettingsReading, FilesCanLieElsewhere) {
    variables = {{"HOME", "/nowhere"},
                 {"AWS_SHARED_CREDENTIALS_FILE",
                  write("keys", "[default]\naws_access_key_id=a\naws_secret_access_key=b\n")},
                 {"AWS_CONFIG_FILE", write("config", "[default]\nregion=x-1\n")}};
    EXPECT_EQ(read().keys->id, "a");
    EXPECT_EQ(read().region, "x-1");
}

TEST_F(ServerSettingsReading, WhatIsWrongIsSaidWithoutValues) {
    variables = {{"AWS_PROFILE", "none"}};
    EXPECT_TRUE(refuses("there is no profile 'none'."));
    variables = {{"AWS_SECRET_ACCESS_KEY", "hush"}};
    EXPECT_TRUE(refuses("of the access key and its secret only one is set."));
    variables = {{"AWS_CONFIG_FILE", "/nowhere/config"}};
    EXPECT_TRUE(refuses("the file that AWS_CONFIG_FILE names cannot be read."));
    variables = {{"AWS_ENDPOINT_URL", "host.example"}};
    EXPECT_TRUE(refuses("the endpoint begins with neither http:// nor https://."));
    for (char const* const bad : {"http://", "http://a b", "http://user@host", "https://host?x"}) {
        variables = {{"AWS_ENDPOINT_URL", bad}};
        EXPECT_TRUE(refuses("the endpoint is no http://HOST[:PORT] or https://HOST[:PORT]."))
            << bad;
    }
}

} // namespace
} // namespace s3_test
