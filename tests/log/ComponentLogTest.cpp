#include "AComponentLog.h"
#include "ALog.h"
#include "support/Files.h"

#include <gtest/gtest.h>

namespace {

class ComponentLogTest : public testing::Test {
protected:
    ComponentLogTest() : m_file(std::fopen(m_dir.path("log").c_str(), "w")), m_log("base", m_file) {
        m_log.setShowTimestamp(false);
    }
    ~ComponentLogTest() override { std::fclose(m_file); }

    std::string written() {
        std::fflush(m_file);
        return readFile(m_dir.path("log"));
    }

    TempDir m_dir;
    FILE* m_file;
    ALog m_log;
};

void vprintTo(AComponentLog& log, const char* format, ...) GORV_PRINTF(2, 3);
void vprintTo(AComponentLog& log, const char* format, ...) {
    va_list args;
    va_start(args, format);
    log.vprint(format, args);
    va_end(args);
    va_start(args, format);
    log.vprint(AComponentLog::TRACE, format, args);
    va_end(args);
}

void useEveryOperation(AComponentLog& log) {
    log.print("m %d\n", 1);
    log.print(AComponentLog::ERROR, "m %d\n", 1);
    log.logInfo("m %d\n", 1);
    log.logWarning("m %d\n", 1);
    log.logError("m %d\n", 1);
    log.logTrace("m %d\n", 1);
    vprintTo(log, "m %d\n", 1);
}

std::string repeated(const std::string& line, int count) {
    std::string result;
    while (count-- > 0) result += line;
    return result;
}

TEST_F(ComponentLogTest, EveryOperationWritesTheBaseLogsLineAndLeavesItBuffered) {
    AComponentLog component("component", m_log);
    useEveryOperation(component);
    EXPECT_EQ(readFile(m_dir.path("log")), "");
    component.flush();
    EXPECT_EQ(readFile(m_dir.path("log")), repeated("base -m 1\n", 8));
}

TEST_F(ComponentLogTest, WithoutBaseLogOrSwitchedOffNothingIsWritten) {
    AComponentLog component(nullptr);
    useEveryOperation(component);
    component.flush();
    component.setBaseLog(m_log);
    component.setEnabled(false);
    EXPECT_FALSE(component.getEnabled());
    useEveryOperation(component);
    EXPECT_EQ(written(), "");
    AComponentLog other("other", m_log);
    other.print("buffered\n");
    component.flush();
    EXPECT_EQ(readFile(m_dir.path("log")), "");
    component.setEnabled(true);
    component.print("m 1\n");
    EXPECT_EQ(written(), "base -buffered\nbase -m 1\n");
}

TEST_F(ComponentLogTest, BaseLogIsHandedDownToAllDescendants) {
    ALog other("other", m_file);
    AComponentLog root("root");
    AComponentLog child("child", other);
    AComponentLog grandchild("grandchild");
    child.addChildLog(grandchild);
    EXPECT_EQ(grandchild.getBaseLog(), &other);
    root.addChildLog(child); // a parent without base log takes nothing away
    EXPECT_EQ(child.getBaseLog(), &other);
    root.setBaseLog(m_log);
    EXPECT_EQ(child.getBaseLog(), &m_log);
    EXPECT_EQ(grandchild.getBaseLog(), &m_log);
    EXPECT_EQ(grandchild.getParentLog(), &m_log);
}

TEST_F(ComponentLogTest, RemovalTakesOneEntryAndKeepsTheBaseLog) {
    ALog other("other", m_file);
    ALog last("last", m_file);
    AComponentLog parent("parent", m_log);
    AComponentLog child("child");
    parent.removeChildLog(child); // not listed yet
    parent.addChildLog(child);
    parent.addChildLog(child);
    parent.removeChildLog(child);
    parent.setBaseLog(other);
    EXPECT_EQ(child.getBaseLog(), &other); // still listed once
    parent.removeChildLog(child);
    parent.setBaseLog(last);
    EXPECT_EQ(child.getBaseLog(), &other);
}

TEST_F(ComponentLogTest, ChildThatWouldCloseACycleIsRefused) {
    AComponentLog top("top");
    AComponentLog middle("middle");
    AComponentLog bottom("bottom");
    top.addChildLog(middle);
    middle.addChildLog(bottom);
    top.addChildLog(top);
    bottom.setBaseLog(m_log);
    bottom.addChildLog(top);
    EXPECT_EQ(top.getBaseLog(), nullptr); // no effect at all
    top.setBaseLog(m_log);                // would never return
    EXPECT_EQ(middle.getBaseLog(), &m_log);
}

} // namespace
