#pragma once

#include <csignal>
#include <cstdio>
#include <termios.h>
#include <unistd.h>

/// Turns the terminal's echo off for one scope, in which it can't be interrupted: the shell would stay
/// without echo. Does nothing while standard input is no terminal.
class HiddenInput {
public:
    HiddenInput() : m_isTerminal(tcgetattr(STDIN_FILENO, &m_settings) == 0)
    {
        if (!m_isTerminal)
            return;
        sigset_t interrupts;
        sigemptyset(&interrupts);
        for (const int signal : {SIGINT, SIGQUIT, SIGTSTP, SIGTERM})
            sigaddset(&interrupts, signal);
        sigprocmask(SIG_BLOCK, &interrupts, &m_mask);
        termios hidden = m_settings;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    }
    ~HiddenInput()
    {
        if (!m_isTerminal)
            return;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_settings);
        std::fputs("\n", stderr);
        sigprocmask(SIG_SETMASK, &m_mask, nullptr);
    }
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;

    bool isTerminal() const { return m_isTerminal; }

private:
    termios m_settings{};
    sigset_t m_mask{};
    bool m_isTerminal;
};
