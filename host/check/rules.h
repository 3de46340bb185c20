// What the contract demands of everything that was witnessed between start() and the server's end.
// Each rule is a pure look at the list; null means that it is kept, else the text says what is wrong.
#pragma once

class CRecorder;
class QString;

namespace Rules {

QString presets(const CRecorder &recorder);
QString signalThreads(const CRecorder &recorder);
QString protocolThread(const CRecorder &recorder);
QString everyEndReported(const CRecorder &recorder);
QString usefulFlag(const CRecorder &recorder);
QString monitorEntries(const CRecorder &recorder);
QString monitorBytes(const CRecorder &recorder);
QString journalRecords(const CRecorder &recorder);
QString ownership(const CRecorder &recorder);
QString stopReturnsFirst(const CRecorder &recorder);
QString quietAfterFinish(const CRecorder &recorder);

/// All rules that hold whatever the host does in between.
QString always(const CRecorder &recorder);

} // namespace Rules
