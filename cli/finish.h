// The end of a run: what came of it, put into the report and in front of a person.
#pragma once

#include "cli/commands.h"
#include "cli/partfile.h"
#include "cli/playsource.h"
#include "cli/report.h"
#include "cli/session.h"
#include "cli/transport.h"
#include "cli/wavwriter.h"

#include <string>

namespace kelvane::cli {

void concludePlayback(const StreamOptions& options, Session& session, const AudioFile& file,
                      const PlaySource& source, const client::RenderStream& stream,
                      RunReport& report);
void concludeRecording(Session& session, const PartFile& part, const WavWriter& file,
                       Recording& recording, RunReport& report);

// Prints the report, as text or JSON. Returns the exit status. Throws InputError when standard
// output can't be written.
int printReport(const StreamOptions& options, const RunReport& report);
int printReport(const StreamOptions& options, const LoopbackReport& report);

// Whether Ctrl-C ended the last run.
bool wasInterrupted();

// The file among what an interface's input can hear; empty when it hears none.
std::string sourceFile(const std::string& input);
// The files that these options name.
RunFiles filesOf(const StreamOptions& options);

} // namespace kelvane::cli
