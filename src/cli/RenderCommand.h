// brindle-cli render: exports a project document's whole mix to a file, as
// the editor's export does.
#pragma once

#include <QStringList>

namespace brindle::cli {

// render PROJECT OUT [--format mp3|m4a|wav] [--rate 96000|48000|44100|22500]
// [--quality high|normal|low]. The format defaults from OUT's extension, the
// rate and quality to the export options' defaults. Answers the exit status:
// 0 written, 1 the project could not be opened or the export failed
// ("Failed to export audio file:(OUT)"), 2 bad arguments.
int renderCommand(const QStringList& arguments);

}  // namespace brindle::cli
