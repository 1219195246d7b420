// SPDX-License-Identifier: BSD-3-Clause
// A server and its connections report through one log that none of them owns.

#include "AComponentLog.h"
#include "ALog.h"

class Connection {
public:
    explicit Connection(AComponentLog& parent) : m_parent(parent) { m_parent.addChildLog(m_log); }
    ~Connection() { m_parent.removeChildLog(m_log); } // or the parent would hand a log to what is gone
    void work() { m_log.logWarning("the peer is slow\n"); }

private:
    AComponentLog& m_parent;
    AComponentLog m_log{"connection"};
};

int main()
{
    ALog log("consoled", stdout);
    log.setShowTimestamp(false);
    AComponentLog server("server");
    Connection connection(server);

    connection.work();      // no base log yet: the line is dropped
    server.setBaseLog(log); // reaches the connection, too
    connection.work();
    server.setEnabled(false); // this component only
    server.print("written nowhere\n");
    connection.work();
    log.flush(); // component logs don't flush
}
