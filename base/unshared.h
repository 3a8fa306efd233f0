/// Open files that a forked child does not share.
#pragma once

namespace kest
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

    /// Closes what was open and opens anew. No fork happens meanwhile, so no child gets a descriptor that is not in the
    /// list.
    /// @param opener  returns a descriptor that ends with exec, or -1 with `errno`. It must not lock an object that
    /// watchForks() locks.
    /// @return whether a file is open now; `errno` is the opener's
    template <typename Opener>
    bool open(Opener opener)
    {
        close();
        const forkPause paused;
        return adopt(opener());
    }
    /// No fork happens between the close and the removal from the list: the number may at once be another file's.
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

/// From now on children of forks close their copies of the open files. Everything else that watches forks is registered
/// later and so is locked earlier: its locks may be held while a file is opened.
void watchUnsharedFiles();

} // namespace kest
