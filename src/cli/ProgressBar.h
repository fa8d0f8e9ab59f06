// A one-line progress bar on standard error, drawn only when standard error
// is a terminal. Thread-safe: workers report their own share of the work.
#pragma once

#include <QString>

#include <mutex>
#include <vector>

namespace brindle::cli {

class ProgressBar {
public:
    // `parts` independent pieces of work, each reporting 0–100.
    ProgressBar(QString label, size_t parts);
    ~ProgressBar();

    // Records the progress of one part and redraws when the whole moved by at
    // least one percent.
    void setPartProgress(size_t part, double percent);
    // Draws 100 % and ends the line.
    void finish();

private:
    void draw(int percent);

    QString m_label;
    bool m_enabled;
    std::mutex m_mutex;
    std::vector<double> m_parts;
    int m_lastDrawn = -1;
    bool m_finished = false;
};

}  // namespace brindle::cli
