// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include "AComponentLog.h"
#include "GorvApi.h"

#include <string>
#include <type_traits>

/// A client of the controller's configuration, event and remote-function service.
///
/// The client takes no lock: one thread initialises it before others use it. Whether calls may then run in
/// parallel is up to the service. All reports go to the component log getLog() and are dropped until setLog()
/// connects it; the lines on standard output that some operations name appear in any case.
///
/// The service may be used before initialize() and after it failed. Operations throw only where they say so,
/// or what the service throws. A cancellation of the thread waits until the operation has returned. Where the
/// argument is `char*`, a `const char*` does as well; the text is only read.
///
/// What is handed to the service as it is has its meaning there: the id of the program, the @p flag of a
/// write, the data of an event. The service library that comes with this one ignores all three.
///
/// @code
/// KEPClient client("consoled", 17);
/// client.setLog(log);
/// client.initialize();
/// int port = 0;
/// if (client.getProperty("console.port", port))
///     client.setProperty("console.port", port + 1, true);
/// @endcode
///
/// @include examples/reference/KEPClient.cpp
/// @verbinclude examples/reference/KEPClient.out
class GORV_API KEPClient {
    template <typename Text>
    using IfConstText = std::enable_if_t<std::is_same_v<Text, const char*>, int>;
    // What would pass for true without being a truth or a number: a pointer, or a class that holds one.
    template <typename Value>
    using IfOtherPointer =
        std::enable_if_t<std::is_convertible_v<Value, bool> && !std::is_convertible_v<Value, int> &&
                             !std::is_convertible_v<Value, char*> && !std::is_same_v<Value, const char*>,
                         int>;

public:
    /// A function that the service can call. What the arguments hold is the service's affair; as a rule the
    /// size of the request and then of the reply, the room for the reply, the request, and the reply.
    using Callback = int(int*, int, void*, void*);

    /// Sends nothing. @p name is copied; null counts as "". @p id is what initialize() names
    /// the program by besides; which ids there are is the service's affair. Throws std::bad_alloc when memory
    /// runs out.
    KEPClient(char* name, int id);
    /// The same for constant text.
    template <typename Text, IfConstText<Text> = 0>
    KEPClient(Text name, int id) : KEPClient(const_cast<char*>(name), id)
    {}

    /// Tells the service nothing. A client that setLog(AComponentLog&) put below another component log must
    /// be taken out of it first: `parent.removeChildLog(client.getLog())`.
    virtual ~KEPClient();

    KEPClient(const KEPClient&) = delete;
    KEPClient& operator=(const KEPClient&) = delete;

    /// Make @p log, which stays the caller's and must outlive the client, the target of the client's reports.
    void setLog(ALog& log);

    /// Hang the client's component log below @p parent, whose base log it takes now and whenever that
    /// changes. Undo each call with `parent.removeChildLog(client.getLog())` before the client is destroyed.
    /// Throws std::bad_alloc when memory runs out.
    void setLog(AComponentLog& parent);

    /// Returns the component log that the client reports through. It belongs to the client.
    AComponentLog& getLog();

    /// Attach to the service, unless an earlier call succeeded in full, and register for the six
    /// configuration events, stopping at the first failure: "event_certificate_updated",
    /// "gui_event_config_changed", "pm_event_telnet_config_changed", "tolvex_event_config_changed",
    /// "pm_event_snmp_config_changed", "pm_event_asra_config_changed". The failure is logged; that of the
    /// second to sixth event goes to standard output too. May be called again, after success as well as after
    /// failure.
    ///
    /// Registering tells the service of the program's interest, and no more: the client has no operation that
    /// receives an event. How the service delivers those that others raise is up to it.
    /// @return always true.
    bool initialize();

    /// @name Reading
    /// A failed read leaves an empty string, 0 or false and, except in the form without a size, logs a line.
    /// What the service leaves without a terminator, or as it was, is read as a string all the same. The text
    /// that is read may take the place of @p name.
    /// @return whether the property was read.
    /// @{

    /// Read a string into the 256 bytes at @p buffer.
    bool getProperty(const char* name, char* buffer);
    /// Read a string into the @p bufferSize bytes at @p buffer, which is null only with a size of 0.
    bool getProperty(const char* name, char* buffer, int bufferSize);
    /// Read a string of any length. Throws std::bad_alloc when memory runs out.
    bool getProperty(const char* name, std::string& value);
    /// Read an integer.
    bool getProperty(const char* name, int& value);
    /// Read a boolean.
    bool getProperty(const char* name, bool& value);
    /// @}

    /// Read a string of any length into a buffer that is replaced by a larger one if need be.
    ///
    /// @param buffer points at an array made with `new char[]`, or at null if @p size is 0. What it points at
    ///   on return, also when an exception leaves the call, is the caller's to release with `delete[]`. It
    ///   doesn't hold @p name.
    /// @param size the size of the array; if it is 0 or less, not a byte of it is touched. On success the
    /// size
    ///   of the value, its terminator included, which is never more than the array holds. After any other
    ///   outcome it is what the service left there: don't take it for the size of the array.
    /// @return 0, or the service's code and a line is logged: any but -2, and all that is known of it is that
    ///   there is no value. Throws `const char*` and logs a line when the service finds the size that it
    ///   asked for too small. Either way the array, if there is one, holds "". Throws std::bad_alloc when
    ///   memory runs out: then there is no array and @p size is 0.
    int getProperty(const char* name, char** buffer, int& size);

    /// @name Writing
    /// Write a property unless it holds @p value already. The value is read first, and a failed read of an
    /// integer or a boolean is logged. A string of 256 characters and more is always written.
    /// @return true when the service took the value; false when it refused or nothing had to be written.
    /// @{

    /// Write a string. The service is always given 1 for a flag, whatever @p flag is. Null is not written.
    bool setProperty(const char* name, char* value, bool flag);
    /// The same for constant text.
    template <typename Text, IfConstText<Text> = 0>
    bool setProperty(const char* name, Text value, bool flag)
    {
        return setProperty(name, const_cast<char*>(value), flag);
    }
    /// Write an integer. The service is given @p flag.
    bool setProperty(const char* name, int value, bool flag);
    /// Write a boolean. The service is given @p flag.
    bool setProperty(const char* name, bool value, bool flag);
    /// No other pointer is written, as a boolean least of all.
    template <typename Value, IfOtherPointer<Value> = 0>
    bool setProperty(const char* name, Value value, bool flag) = delete;
    /// @}

    /// @name Writing, with failure told from no change
    /// As setProperty(), but texts of any length are compared, and their failed read is logged too.
    /// @return 1 when the service took the value, 0 when it was there already, -1 when the service refused.
    /// @{

    /// Write a string. Null is refused. Throws std::bad_alloc when memory runs out.
    int updateProperty(const char* name, const char* value, bool flag);
    /// Write an integer.
    int updateProperty(const char* name, int value, bool flag);
    /// Write a boolean.
    int updateProperty(const char* name, bool value, bool flag);
    /// No other pointer is written.
    template <typename Value, IfOtherPointer<Value> = 0>
    int updateProperty(const char* name, Value value, bool flag) = delete;
    /// @}

    /// Raise @p event, of those above or any other, with @p size bytes of @p data. A failure is logged.
    /// @return whether the service took the event, which may depend on somebody being registered for it.
    bool notifyEvent(char* event, int size, void* data);
    /// The same for constant text.
    template <typename Text, IfConstText<Text> = 0>
    bool notifyEvent(Text event, int size, void* data)
    {
        return notifyEvent(const_cast<char*>(event), size, data);
    }

    /// Call the remote function @p name with the @p size bytes at @p sendBuffer. Its reply goes to
    /// @p receiveBuffer, which has room for @p maxReceiveSize bytes, and its size to @p receivedSize, which a
    /// failure leaves alone: the service's word, to be checked against the room before it is used. A null
    /// buffer goes with a size of 0. @p name lies outside @p receiveBuffer. Writes one line to standard
    /// output before the call and one after it.
    /// @return 0, or the service's code, which is logged: -2 if the reply doesn't fit, -8 if the call itself
    ///   failed, or any other, among them what the function called answers with.
    int callFunction(const char* name, int size, void* sendBuffer, int maxReceiveSize, int& receivedSize,
                     void* receiveBuffer);

    /// Offer the function that @p callback points at to the service under @p name. It runs when and on
    /// whatever thread the service calls it; the pointer at @p callback stays in place for as long. A failure
    /// is written to the service's own log, in words that announce the end of the program; the program goes
    /// on.
    void registerCallback(char* name, Callback** callback);
    /// The same for constant text.
    template <typename Text, IfConstText<Text> = 0>
    void registerCallback(Text name, Callback** callback)
    {
        registerCallback(const_cast<char*>(name), callback);
    }

private:
    GORV_LOCAL bool attach();
    GORV_LOCAL bool registerEvents();

    bool m_initialized;
    char* m_name; // owned, from strdup
    int m_id;
    AComponentLog m_log;
};
