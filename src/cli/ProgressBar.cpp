#include "cli/ProgressBar.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <unistd.h>

namespace brindle::cli {

namespace {
constexpr int kBarWidth = 40;
}

ProgressBar::ProgressBar(QString label, size_t parts)
    : m_label(std::move(label))
    , m_enabled(::isatty(STDERR_FILENO) == 1)
    , m_parts(std::max<size_t>(parts, 1), 0.0)
{
}

ProgressBar::~ProgressBar()
{
    finish();
}

void ProgressBar::setPartProgress(size_t part, double percent)
{
    if (!m_enabled)
        return;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (part >= m_parts.size() || m_finished)
        return;
    m_parts[part] = std::clamp(percent, 0.0, 100.0);
    const double total = std::accumulate(m_parts.begin(), m_parts.end(), 0.0) / double(m_parts.size());
    const int whole = int(total);
    if (whole != m_lastDrawn)
        draw(whole);
}

void ProgressBar::finish()
{
    if (!m_enabled)
        return;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_finished)
        return;
    draw(100);
    std::fputc('\n', stderr);
    m_finished = true;
}

void ProgressBar::draw(int percent)
{
    m_lastDrawn = percent;
    const int filled = percent * kBarWidth / 100;
    std::string bar(size_t(filled), '#');
    bar.append(size_t(kBarWidth - filled), ' ');
    std::fprintf(stderr, "\r%s [%s] %3d%%", m_label.toUtf8().constData(), bar.c_str(), percent);
    std::fflush(stderr);
}

}  // namespace brindle::cli
