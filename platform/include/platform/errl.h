/// @file
/// The platform's error log: entries, their system reference codes (SRCs) and how they are committed.
///
/// An entry is created by the first failure of a request, travels up as an `ErrlEntry*`, and is owned by whoever holds
/// it: pass it on, commit and delete it, or delete it. Entries are not shared between threads.
///
/// Nothing here throws. An entry that exists always has its identifier, its first SRC, its severity and its return
/// code. Without memory, other items are left out; the stored entry then says that it is incomplete.
#pragma once

#include <cstddef>
#include <cstdint>

/// What the failure left behind.
enum errlSeverity : std::uint32_t {
    ERRL_SEV_RECOVERED = 0x10, ///< nothing: it was mended, or the entry only informs
    ERRL_SEV_UNRECOVERED = 0x20, ///< a request that was not served
};

/// A kind of event beside the failure.
enum errlEventType : std::uint32_t {
    ERRL_EVENT_NONE = 0, ///< there is none
};

/// Who made an SRC.
enum srciType : std::uint32_t {
    SRCI_TYPE_SERVICE_PROCESSOR = 0xB1, ///< software of a service processor
};

/// The low half of an SRC's first word.
enum serviceCodes : std::uint32_t {
    SERVICE_CODE_KEST = 0x43FF, ///< this system's
};

/// Who is blamed.
enum epubSubSystem : std::uint32_t {
    EPUB_SUBSYSTEM_NONE = 0, ///< nobody
    EPUB_SUBSYSTEM_IIC_DEVICE = 0x55, ///< the device or its bus
    EPUB_SUBSYSTEM_SOFTWARE = 0x81, ///< the software, or what it was asked to do
};

/// How much speaks for a callout.
enum srciPriority : std::uint32_t {
    SRCI_PRIORITY_NONE = 0, ///< there is no callout
    SRCI_PRIORITY_HIGH = 1, ///< check this first
};

/// What to check.
enum epubProcedureID : std::uint32_t {
    EPUB_PROCEDURE_NONE = 0, ///< there is no procedure
    EPUB_PROCEDURE_SOFTWARE = 4, ///< the code, or the request it was given, is at fault
    EPUB_PROCEDURE_IIC = 6, ///< the IIC path to the device is at fault
};

/// Whether the failure ends the service processor.
enum srciTermState : std::uint32_t {
    SRCI_TERM_NONE = 0, ///< it does not
};

/// Commit actions: what the log does with an entry beyond storing it.
constexpr std::uint16_t ERRL_ACTION_REPORT = 0x2000; ///< report to the operator
constexpr std::uint16_t ERRL_ACTION_KEEP_FOR_SERVICE = 0x4000; ///< keep for service personnel only

/// Root of everything the error log allocates.
class ErrlBase
{
public:
    ErrlBase() = default;
    /// Copies nothing: there is nothing in it.
    ErrlBase(const ErrlBase&) = default;
    /// Copies nothing. @return this object
    ErrlBase& operator=(const ErrlBase&) = default;
    virtual ~ErrlBase();

    /// The log's own allocator, which keeps room for 16 entries aside.
    /// @param bytes  of the object
    /// @return its memory; null without memory: a `new` expression then yields null.
    static void* operator new(std::size_t bytes) noexcept;
    /// Gives the memory back.
    /// @param object  null is ignored
    static void operator delete(void* object) noexcept;
};

/// One system reference code of an entry. Made by the entry alone, and lives until the entry is deleted or assigned to.
/// Calls that add to the entry leave it where it is.
class SrciSrc
{
public:
    /// The eight words that describe the SRC.
    ///
    /// Word 0: type (high 16 bits) and service code; word 1: component (high 16 bits) and module; word 2: reason code;
    /// word 3: subsystem; words 4-7: user data 1-4. So the word at index 4 of a failed transfer's SRC is its `errno`.
    /// @param[out] count  number of words in the result, 8.
    /// @return the words, in host order, owned by the SRC.
    const std::uint32_t* getHexData(unsigned int& count) const;

    struct State; ///< known to the platform alone
    /// For the platform.
    /// @param state  what the SRC holds; stays the entry's
    explicit SrciSrc(State* state) noexcept : m_state(state) {}
    SrciSrc(const SrciSrc&) = delete;
    SrciSrc& operator=(const SrciSrc&) = delete;
    ~SrciSrc();

    /// For the platform's own tools.
    /// @return what the SRC holds
    const State* state() const noexcept { return m_state; }

private:
    friend class ErrlEntry;
    State* m_state;
};

/// One error log entry.
class ErrlEntry : public ErrlBase
{
public:
    /// Builds an entry whose first SRC (index 0) is described by the arguments.
    /// @param component  who logs; 0x1300 for this library. It becomes the entry's creator.
    /// @param severity  what the failure left behind
    /// @param eventType  `ERRL_EVENT_NONE`
    /// @param type  `SRCI_TYPE_SERVICE_PROCESSOR`
    /// @param srcFlags  0
    /// @param module  the failing function's identifier
    /// @param serviceCode  `SERVICE_CODE_KEST`
    /// @param reason  what failed
    /// @param word1,word2,word3,word4  user data 1-4 of the SRC
    /// @param subsystem  who is blamed
    /// @param termState  `SRCI_TERM_NONE`
    ErrlEntry(unsigned short component, errlSeverity severity, errlEventType eventType, srciType type,
              unsigned int srcFlags, unsigned char module, serviceCodes serviceCode, unsigned short reason,
              unsigned int word1, unsigned int word2, unsigned int word3, unsigned int word4, epubSubSystem subsystem,
              srciTermState termState);
    ErrlEntry(const ErrlEntry&) = delete;
    /// Copies everything that the other entry holds, its `plid` included. Without memory it copies only what every
    /// entry has. Its own old contents are lost either way.
    /// @param other  stays as it is
    /// @return this entry
    ErrlEntry& operator=(const ErrlEntry& other);
    ~ErrlEntry() override;

    /// Adds a further SRC behind those already there. Left out without memory.
    /// @param component  who logs
    /// @param type  `SRCI_TYPE_SERVICE_PROCESSOR`
    /// @param srcFlags  0
    /// @param module  the failing function's identifier
    /// @param serviceCode  `SERVICE_CODE_KEST`
    /// @param reason  what failed
    /// @param word1,word2,word3,word4  user data 1-4 of the SRC
    /// @param subsystem  who is blamed
    void addSRC(unsigned short component, srciType type, unsigned int srcFlags, unsigned char module,
                serviceCodes serviceCode, unsigned short reason, unsigned int word1, unsigned int word2,
                unsigned int word3, unsigned int word4, epubSubSystem subsystem);
    /// Adds a copy of an SRC of another entry. Left out without memory.
    /// @param creator  the component that made it
    /// @param src  stays the other entry's
    void addSRC(unsigned short creator, const SrciSrc& src);
    /// Copies the latest `bytes` bytes of a named trace buffer into the entry; a buffer that does not exist adds
    /// nothing.
    /// @param bufferName  as given to trace_wobu_init_buffer()
    /// @param bytes  the most that is taken
    void CollectTrace(const char* bufferName, unsigned int bytes);
    /// Copies a block of user details into the entry. Left out without memory.
    /// @param data  stays the caller's
    /// @param length  bytes at `data`
    /// @param component  whose numbers `subsection` has
    /// @param version  of the block's layout
    /// @param subsection  what the block is
    void addUsrDtls(const void* data, unsigned short length, unsigned short component, unsigned char version,
                    unsigned char subsection);
    /// Sets the entry's return code, replacing an earlier one.
    /// @param returnCode  a class in the top bits, a reason in the low 16
    void setRC(unsigned int returnCode);
    /// Sets what the failure left behind.
    /// @param severity  replaces the one before
    void setSev(errlSeverity severity);
    /// Names a procedure that finds the cause. Left out without memory.
    /// @param priority  how much speaks for it
    /// @param procedure  which one
    void addProcedureCallout(srciPriority priority, epubProcedureID procedure);
    /// Names a part that can be replaced. Left out without memory.
    /// @param priority  how much speaks for it
    /// @param fruId  number of the part
    void addFruCallout(srciPriority priority, unsigned short fruId);
    /// Notes that a call failed. Left out without memory.
    /// @param component  whose call it was
    /// @param returnCode  of the call
    /// @param word1  the module that failed
    /// @param word2  the step in it
    /// @param reserved  0
    void addSwErr(unsigned short component, unsigned int returnCode, unsigned short word1, unsigned short word2,
                  unsigned int reserved);
    /// Stores the entry durably. On return it is stored, or written to standard error when nothing could store it. The
    /// caller still deletes the object. Waits at most five seconds for other users of the log.
    /// @param component  who commits
    /// @param action  `ERRL_ACTION_REPORT` or `ERRL_ACTION_KEEP_FOR_SERVICE`
    void commit(unsigned short component, unsigned short action);

    /// Returns one of the entry's SRCs.
    /// @param index  counted from 0
    /// @return the SRC, owned by the entry; null when there is none.
    const SrciSrc* getSRC(unsigned short index) const;
    /// Returns the entry's creator.
    /// @return the component that the constructor was given
    std::uint16_t creator() const;
    /// Returns the entry's log identifier.
    /// @return unique across processes and restarts, never 0. Every entry has one, also without memory.
    std::uint32_t plid() const;
    /// Returns the entry's return code.
    /// @return what setRC() was given last; 0 without
    std::uint32_t getRC() const;

    struct State; ///< known to the platform alone
    /// For the platform's own tools.
    /// @return what the entry holds
    State* state() noexcept { return m_state; }
    /// For the platform's own tools.
    /// @return what the entry holds
    const State* state() const noexcept { return m_state; }

private:
    static constexpr std::size_t roomBytes = 64 * sizeof(void*);

    /// For the platform's state, so that an entry needs no memory beside its own.
    alignas(std::uint64_t) std::byte m_room[roomBytes]{};
    State* m_state;
};
