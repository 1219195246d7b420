// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>

/// A scratch folder that is removed with all it holds.
class TempDir {
public:
    TempDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "gorvUtil.XXXXXX").string();
        m_path = ::mkdtemp(pattern.data());
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string path(const std::string& name) const { return (m_path / name).string(); }
    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

inline std::string readFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf(); // nothing of a process that has ended
    return text.str();
}

/// Redirects a standard stream of the process into a file for one scope.
class CapturedStream {
public:
    explicit CapturedStream(FILE* stream)
        : m_stream(stream), m_file(std::tmpfile()), m_saved(::dup(::fileno(stream)))
    {
        std::fflush(m_stream);
        ::dup2(::fileno(m_file), ::fileno(m_stream));
    }
    ~CapturedStream()
    {
        restore();
        std::fclose(m_file);
    }
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;

    /// What has left the stream's buffer so far.
    std::string arrived() const { return readFile("/proc/self/fd/" + std::to_string(::fileno(m_file))); }
    /// End the redirection and return all that was written.
    std::string text()
    {
        restore();
        return arrived();
    }

private:
    void restore()
    {
        if (m_saved < 0)
            return;
        std::fflush(m_stream);
        ::dup2(m_saved, ::fileno(m_stream));
        ::close(std::exchange(m_saved, -1));
    }

    FILE* m_stream;
    FILE* m_file;
    int m_saved;
};

/// How many descriptors this process has open.
inline int openDescriptors()
{
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}
