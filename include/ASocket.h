// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "AComponentLog.h"
#include "AInputStream.h"
#include "AOutputStream.h"
#include "GorvApi.h"

#include <netinet/in.h>
#include <string>

class ALog;

/// One end of a TCP connection: connects to a host and port, or takes over an accepted descriptor.
///
/// Integers travel with the most significant byte first, strings as their characters alone. Nothing is
/// buffered: what was written is with the system. The object owns its descriptor and closes it; the
/// descriptor blocks, and sending to a peer that has gone raises SIGPIPE unless the program ignores it. Only
/// setting up throws; createIPSocket(), which knows IPv4 alone, and the constructors that call it print their
/// progress to standard output. Reading and writing put their trail into the log of setLog(). The system's
/// complaints go to standard error. A descriptor that is made here is close-on-exec and never one of the
/// standard streams' numbers.
///
/// One thread at a time uses an object, but for shutDown(); separate objects are independent. A cancellation
/// of that thread acts where it connects, sends, receives or writes a line; everything else, resolving and
/// closing with a linger time among it, is finished first. The object stays usable, though a part of the
/// message may be gone. Destroyed as an ASocket.
///
/// @code
/// ASocket socket;
/// socket.connectTo("127.0.0.1", 4711, 5); // throws GorvSocketException
/// socket.writeInt(42);
/// int answer = 0;
/// if (socket.readInt(answer, 5) == 4)
///     use(answer);
/// @endcode
///
/// @include examples/reference/ASocket.cpp
/// @verbinclude examples/reference/ASocket.out
class GORV_API ASocket : public AOutputStream, public AInputStream {
public:
    static const int NOT_CONNECTED = 0;  ///< No connection yet.
    static const int CONNECTED = 1;      ///< Data passes. In every other state reading and writing refuse.
    static const int CLOSED = 2;         ///< Closed by this side, or after a failed attempt to connect.
    static const int CLOSED_BY_PEER = 3; ///< The other side closed.
    static const int CONNECT_FAILED = 4; ///< No socket could be made.
    static const int IO_ERROR = 5;       ///< Sending, receiving or waiting failed.

    /// Not connected. Connect with createIPSocket().
    ASocket();

    /// A second object for the connection of @p other, with a descriptor of its own: each object closes its
    /// own, and the connection ends with the last. The copy has no log and is not silent. When no descriptor
    /// is left for it, it holds none and its state is IO_ERROR.
    ASocket(const ASocket& other);

    /// Connect as createIPSocket() does. Prints the attempt, and a line about a failure, which it throws on.
    /// @param silent the choice of setSilent()
    ASocket(const char* ip, int port, bool silent);
    /// The same, not silent.
    ASocket(const char* ip, int port);

    /// Take over @p socket, a connection accepted from @p address. Checks nothing. The descriptor must block:
    /// receiving from one that doesn't keeps asking, and complaining, until data comes. One that was accepted
    /// without SOCK_CLOEXEC lives on in the programs that are run.
    ASocket(int socket, sockaddr_in& address);

    ASocket& operator=(const ASocket&) = delete;

    /// Open a connection over IPv4. A descriptor that the object still holds is closed first. connectTo()
    /// takes a limited time, knows IPv6 and prints nothing.
    ///
    /// Resolving and connecting block as long as the system lets them; a signal can fail them. On failure the
    /// state is CONNECT_FAILED (no socket could be made) or CLOSED, by way of close(), no descriptor is held,
    /// both standard streams have a message, and GorvSocketException is thrown. std::bad_alloc or a
    /// cancellation may leave a descriptor in the object, which closes it as ever.
    /// @param ip host name or dotted address
    /// @param port the low 16 bits count
    void createIPSocket(const char* ip, int port);

    /// Open a connection over IPv4 or IPv6 within @p timeout, and print nothing. A descriptor that the object
    /// still holds is closed first. The addresses of @p host are tried in the resolver's order, each for its
    /// share of the time that is left; a signal interrupts nothing.
    ///
    /// The resolver can't be interrupted: looking up a name may take longer, as long as its own limits let it
    /// (resolv.conf), and what it took is missing afterwards. An address needs no look-up. On failure the
    /// state is CONNECT_FAILED, no descriptor is held, and GorvSocketException tells the reason of the last
    /// address, "Connection timed out" for one. A cancellation leaves the same state behind.
    /// @param host name or address; "::1" and "fe80::1%eth0" as well
    /// @param service the name of one, or a port in digits, of which the low 16 bits count
    /// @param timeout in seconds; 0 for as long as the system lets it
    void connectTo(const char* host, const char* service, unsigned int timeout);
    /// The same for a port, of which the low 16 bits count.
    void connectTo(const char* host, int port, unsigned int timeout)
    {
        connectTo(host, std::to_string(port & 0xFFFF).c_str(), timeout);
    }

    /// Let @p log, which stays the caller's, take the lines about reading and writing. It outlives the socket
    /// or is replaced first. Texts that are sent stand in these lines: no log for a socket that carries
    /// secrets.
    void setLog(ALog& log);

    /// Choose whether the next createIPSocket() leaves out its lines about connecting and the successful
    /// connection. The attempt and a failure are printed all the same. Off in a new socket.
    void setSilent(bool silent);

    /// Returns whether the object holds a descriptor, as it still does after the peer has closed.
    bool isOpen();

    /// Returns the state, one of the constants above.
    int getSocketState();

    /// Returns the descriptor, which stays the object's, or -1 when it holds none. For the system's waits and
    /// options; make it non-blocking only if nothing is received or sent through the object any more.
    int getDescriptor();

    /// Bound, from the next message on, how long one that has begun may stand still. Only while neither this
    /// object nor a copy sends or receives: a message under way would be cut or awaited for ever. The wait
    /// for a first byte knows its own time-out alone, and 0 stays without limit; from the first byte on the
    /// limit takes the place of the time-out. When the peer sends nothing for @p seconds, at the latest for
    /// twice as long, readFully() and the operations on it give -1 and set IO_ERROR without a message, since
    /// half a message has passed. When it takes nothing, sending ends with its complaint, at the latest after
    /// a few times as long, as the system's buffers fill. A signal starts the limit anew.
    ///
    /// The limit is one of the connection: copies share it, and createIPSocket() begins without. It takes the
    /// descriptor's SO_RCVTIMEO and SO_SNDTIMEO; what a program sets there itself is no such limit.
    /// @param seconds 0 for no limit, as in the beginning; otherwise enough for a slow peer to take 64 KiB
    /// @return whether the system set it
    bool setStallLimit(unsigned int seconds);

    /// End the connection in both directions, for copies as well. The one operation that another thread may
    /// call while one reads or writes, though not while one connects, closes or destroys, so leave the end of
    /// the object to whoever joins the thread that uses it: the reader then sees a closed peer, or a failure
    /// ("Connection reset") if the peer is sending, and the writer a failure with its SIGPIPE. The state is
    /// left to them, and the descriptor stays open.
    /// @return false if the system refuses, as without a connection
    bool shutDown();

    // From here on the order of the virtual operations is part of the interface: programs call them by slot.

    /// @name Sending
    /// Unless the state is CONNECTED nothing is sent. A failure prints "Socket write failed" on standard
    /// error and sets IO_ERROR; a part may have been sent. A signal is no failure.
    /// @{

    /// Send @p len bytes from @p data, however many system calls that takes: normally one.
    void write(const unsigned char* data, int len) override;
    /// Send the 4 bytes of @p value through write().
    void writeInt(int value) override;
    /// Send the characters of @p text, the first INT_MAX of them at most, through write(), without its
    /// terminator. Null sends nothing.
    void writeString(const unsigned char* text) override;
    /// Call the system's fsync on the descriptor. Nothing is ever pending in the object.
    void flush() override;
    /// @}

    /// Close the descriptor, once, and set CLOSED, in any state.
    void close() override;

    virtual ~ASocket();

    /// @name Sending parts of a message
    /// As above.
    /// @{

    /// Send one byte, not through write().
    virtual void writeByte(unsigned char value);
    /// Send the low 16 bits of @p value through write().
    virtual void writeShort(int value);
    /// @}

    /// @name Receiving
    /// @p timeout is in seconds and bounds each wait for data, not the whole operation; 0 waits without
    /// limit. Once a first byte has come the rest is awaited without limit, until the peer closes, a signal
    /// or urgent data arrives (a new wait follows) or the limit of setStallLimit() is reached. The result is
    /// a count of bytes, 0 after the peer has closed (CLOSED_BY_PEER), -1 after a time-out (the state stays)
    /// or a failure (IO_ERROR, with a message on standard error). A signal interrupts nothing, but a wait
    /// starts anew, with its whole time-out.
    /// @{

    /// Receive once into @p data + @p offset. Fewer than @p len bytes (at least 1) come back when the peer
    /// closes, a signal or urgent data arrives or the stall limit has passed since receiving began, though
    /// bytes may still trickle in. With a log, the first byte at @p data is read, too. A @p len of 0 waits as
    /// well, and then can't be told from a closed peer, not even by the state.
    /// @return 0 too in every state but CONNECTED
    int read(unsigned char* data, int offset, int len, unsigned int timeout) override;
    /// Receive 4 bytes through readFully().
    /// @return 4 with the integer in @p value; otherwise 0 or -1, and @p value keeps what it held
    int readInt(int& value, unsigned int timeout) override;
    /// Receive 2 bytes through readFully().
    /// @return 2 with the integer in @p value; otherwise 0 or -1, and @p value keeps what it held
    int readShort(short& value, unsigned int timeout) override;
    /// Receive 1 byte through readFully().
    /// @return 1 with the byte in @p value; otherwise 0 or -1, and @p value keeps what it held
    int readByte(unsigned char& value, unsigned int timeout) override;
    /// Receive until all @p len bytes are at @p data + @p offset. What arrived before a failure stays there.
    /// @return @p len; otherwise 0 or -1, which is also the result when the state isn't CONNECTED
    int readFully(unsigned char* data, int offset, int len, unsigned int timeout) override;

    /// Wait for data and receive what is there, 1 to @p len bytes, into @p data.
    /// @return their count; otherwise 0 or -1, which is also the result, at once, when the state isn't
    ///   CONNECTED or @p len is below 1
    int readAvailable(unsigned char* data, int len, unsigned int timeout);

    /// Wait and receive once, in any state.
    /// @param len at least 1
    /// @param flag flags of the system's recv; MSG_DONTWAIT makes it ask and complain until data comes, or,
    ///   with a stall limit, wait silently
    int socket_read(unsigned char* data, int len, int flag, unsigned int timeout);
    /// @}

    /// writeString(), for chains.
    ASocket& operator<<(const unsigned char* text);
    /// writeString(), for chains.
    ASocket& operator<<(const char* text);

private:
    GORV_LOCAL void startAfresh();
    [[noreturn]] GORV_LOCAL void failConnecting(const char* complaint, const char* format, ...)
        GORV_PRINTF(3, 4);
    GORV_LOCAL void sendAll(const unsigned char* data, int len);
    GORV_LOCAL bool awaitData(unsigned int timeout);
    GORV_LOCAL int receive(unsigned char* data, int len, int flag);

    int m_socket;           // -1: none
    int m_networkByteOrder; // 1: most significant byte first, the only order
    sockaddr_in m_address;  // the peer; zero over IPv6
    AComponentLog m_log;
    int m_socketState;
    bool m_silent;
};
