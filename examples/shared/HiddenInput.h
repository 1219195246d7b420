// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <csignal>
#include <cstdio>
#include <iterator>
#include <termios.h>
#include <unistd.h>

/// Turns the terminal's echo off for one scope, and on again when a signal ends the program in it: the shell
/// would stay without. Can't be stopped meanwhile. Does nothing while standard input is no terminal.
class HiddenInput {
public:
    HiddenInput() : m_isTerminal(tcgetattr(STDIN_FILENO, &s_settings) == 0)
    {
        if (!m_isTerminal)
            return;
        struct sigaction action {};
        action.sa_handler = [](int signal) {
            tcsetattr(STDIN_FILENO, TCSANOW, &s_settings);
            std::signal(signal, SIG_DFL);
            std::raise(signal);
        };
        for (std::size_t i = 0; i < std::size(kEnds); ++i)
            sigaction(kEnds[i], &action, &m_before[i]);
        m_stop = std::signal(SIGTSTP, SIG_IGN);
        termios hidden = s_settings;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    ~HiddenInput()
    {
        if (!m_isTerminal)
            return;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &s_settings);
        std::fputs("\n", stderr);
        for (std::size_t i = 0; i < std::size(kEnds); ++i)
            sigaction(kEnds[i], &m_before[i], nullptr);
        std::signal(SIGTSTP, m_stop);
    }
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;

    bool isTerminal() const { return m_isTerminal; }

private:
    static constexpr int kEnds[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
    static inline termios s_settings{}; // there is one terminal

    struct sigaction m_before[std::size(kEnds)]{};
    void (*m_stop)(int) = SIG_DFL;
    bool m_isTerminal;
};
