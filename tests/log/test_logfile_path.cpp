// Where a log file is: the path that an application shows its user, from the file itself and
// from the server by channel, for as long as the file is open and not after.
#include "test_logfile_support.h"

using namespace tavrin;
using namespace logtest;

TEST(LogFilePath, FollowsTheFileFromOpenToClose)
{
    CTempFolder folder(L"path");
    ustring path = L"stale";

    CLogFile file(eLogFileDetailVerbose);
    EXPECT_FALSE(file.GetPath(path));
    EXPECT_TRUE(path.empty());
    const ustring name = folder / L"direct.log";
    ASSERT_TRUE(file.Open(name));
    ASSERT_TRUE(file.GetPath(path));
    EXPECT_EQ(name, path);
    file.Close();
    EXPECT_FALSE(file.GetPath(path));
    EXPECT_TRUE(path.empty());

    // Through the server: the file it named after the channel, which exists on disk.
    CServerSetup setup(folder.Path(), eLogFileDetailNormal);
    const unsigned int channel = NextChannel();
    EXPECT_FALSE(CLogFileServer::Ref().GetLogFilePath(channel, path));
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(channel, L"DEVICE", nullptr));
    ASSERT_TRUE(CLogFileServer::Ref().GetLogFilePath(channel, path));
    EXPECT_EQ(folder.Path() + L"\\DEVICE-", path.substr(0, folder.Path().size() + 8));
    EXPECT_EQ(L".log", path.substr(path.size() - 4));
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, ::GetFileAttributesW(path));
    const unsigned int other = NextChannel();
    ASSERT_TRUE(CLogFileServer::Ref().Attach(other, channel));
    ustring shared;
    ASSERT_TRUE(CLogFileServer::Ref().GetLogFilePath(other, shared));
    EXPECT_EQ(path, shared);
    CLogFileServer::Ref().CloseLogFile(channel);
    CLogFileServer::Ref().CloseLogFile(other);
    EXPECT_FALSE(CLogFileServer::Ref().GetLogFilePath(channel, path));
    EXPECT_TRUE(path.empty());
}
