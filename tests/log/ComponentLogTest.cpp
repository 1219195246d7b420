#include "AComponentLog.h"
#include "ALog.h"
#include "support/Files.h"

#include <gtest/gtest.h>

namespace {

struct ComponentLogTest : testing::Test {
    ComponentLogTest() { m_log.setShowTimestamp(false); }
    ~ComponentLogTest() override { std::fclose(m_file); }
    std::string written() {
        std::fflush(m_file);
        return readFile(m_dir.path("log"));
    }

    const TempDir m_dir;
    FILE* const m_file = std::fopen(m_dir.path("log").c_str(), "w");
    ALog m_log{"base", m_file};
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

std::string useEveryOperation(AComponentLog& log) {
    log.print("m %d\n", 1);
    log.print(AComponentLog::ERROR, "m %d\n", 1);
    log.logInfo("m %d\n", 1);
    log.logWarning("m %d\n", 1);
    log.logError("m %d\n", 1);
    log.logTrace("m %d\n", 1);
    vprintTo(log, "m %d\n", 1);
    std::string expected;
    for (int i = 0; i < 8; ++i) expected += "base -m 1\n";
    return expected;
}

TEST_F(ComponentLogTest, OperationsWriteTheBaseLogsLineUnlessThereIsNoneOrTheyAreSwitchedOff) {
    AComponentLog component(nullptr), other("other", m_log);
    useEveryOperation(component);
    component.flush();
    component.setBaseLog(m_log);
    component.setEnabled(false);
    EXPECT_FALSE(component.getEnabled());
    useEveryOperation(component);
    EXPECT_EQ(written(), "");
    other.print("buffered\n");
    component.flush();
    EXPECT_EQ(readFile(m_dir.path("log")), "");
    component.setEnabled(true);
    const std::string lines = useEveryOperation(component);
    EXPECT_EQ(readFile(m_dir.path("log")), ""); // left in the buffer
    component.flush();
    EXPECT_EQ(readFile(m_dir.path("log")), "base -buffered\n" + lines);
}

TEST_F(ComponentLogTest, BaseLogIsHandedDownToWhatIsStillListed) {
    ALog other("other", m_file);
    AComponentLog root("root"), child("child", other), grandchild("grandchild");
    root.removeChildLog(child); // not listed yet
    child.addChildLog(grandchild);
    EXPECT_EQ(grandchild.getBaseLog(), &other);
    root.addChildLog(child); // a parent without base log takes nothing away
    root.addChildLog(child);
    EXPECT_EQ(child.getBaseLog(), &other);
    root.removeChildLog(child);
    root.setBaseLog(m_log);
    EXPECT_EQ(child.getBaseLog(), &m_log); // still listed once
    EXPECT_EQ(grandchild.getParentLog(), &m_log);
    root.removeChildLog(child);
    root.setBaseLog(other);
    EXPECT_EQ(child.getBaseLog(), &m_log);
}

TEST_F(ComponentLogTest, ChildThatWouldCloseACycleIsRefused) {
    AComponentLog top("top"), middle("middle"), bottom("bottom");
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
