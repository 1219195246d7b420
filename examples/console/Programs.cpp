// SPDX-License-Identifier: BSD-3-Clause
#include "Programs.h"

#include "SystemExec.h"

#include <algorithm>

Programs::Programs(std::vector<Program> programs, int limitSeconds)
    : m_programs(std::move(programs)), m_limitSeconds(limitSeconds)
{}

Programs::Outcome Programs::run(std::string_view name, std::size_t limit, int connection, std::string& output)
{
    const auto program = std::find_if(m_programs.begin(), m_programs.end(),
                                      [&](const Program& candidate) { return candidate.name == name; });
    if (program == m_programs.end())
        return Outcome::NotAllowed;
    const std::unique_lock onlyOne(m_running, std::try_to_lock);
    if (!onlyOne)
        return Outcome::Busy;
    SystemExec::Job job;
    job.args = program->arguments.data();
    job.outputLimit = limit;
    job.timeoutMs = m_limitSeconds * 1000;
    job.stop = {connection, 0,
                0}; // poll tells of a hang-up unasked, and the next request may be here already
    SystemExec::Result result;
    const SystemExec::Outcome outcome = SystemExec::run(job, result);
    output = std::move(result.output);
    output.append(result.error, 0, limit - output.size());
    return outcome == SystemExec::Outcome::Ended && result.status == 0 ? Outcome::Finished : Outcome::Failed;
}
