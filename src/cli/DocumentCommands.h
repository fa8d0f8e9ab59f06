// The project-document commands of brindle-cli. Each returns the process
// exit status.
#pragma once

#include <QStringList>

namespace brindle::cli {

// build OUT DESCRIPTION.json: make a project document from a JSON
// description of tracks and clips, importing media not yet registered.
int buildCommand(const QStringList& arguments);
// info PROJECT: open a document as the editor does and list its clips.
int infoCommand(const QStringList& arguments);

}  // namespace brindle::cli
