/// Open files that a forked child does not share.
#pragma once

namespace kest::host
{

/// An open file that ends with its owner and with this process: a child of fork() closes its copy before it does
/// anything else. A lock on the file would otherwise outlive a killed owner for as long as a child of it lives.
class unsharedFile
{
public:
    unsharedFile() = default;
    unsharedFile(const unsharedFile&) = delete;
    unsharedFile& operator=(const unsharedFile&) = delete;
    ~unsharedFile() { close(); }

    /// Closes what was open and opens anew. No fork happens meanwhile, so that no child has a descriptor that nobody
    /// knows of.
    /// @param opener  returns a descriptor that ends with exec, or -1 with `errno`. It must not lock what forks are
    /// watched for.
    /// @return whether a file is open now; `errno` is the opener's
    template <typename Opener>
    bool open(Opener opener)
    {
        close();
        const forkPause paused;
        return adopt(opener());
    }
    /// No fork happens between the close and its being known: the number may be another file's at once.
    void close();

    [[nodiscard]] bool valid() const { return m_number >= 0; } ///< false in a child
    [[nodiscard]] int number() const { return m_number; }

private:
    friend class unsharedFiles;
    class forkPause
    {
    public:
        forkPause();
        forkPause(const forkPause&) = delete;
        forkPause& operator=(const forkPause&) = delete;
        ~forkPause();
    };
    bool adopt(int number);

    int m_number = -1;
    unsharedFile* m_next = nullptr; ///< of all open ones; a list of their own needs no memory
    unsharedFile* m_previous = nullptr;
};

/// Has the open files closed in children of forks from now on. What else watches forks is registered later, and so is
/// locked before these files are: it may be held while one is opened.
void watchUnsharedFiles();

} // namespace kest::host
