// What the contract demands of everything that was witnessed between start() and the server's end.
// Each rule is a pure look at the list; null means that it is kept, else the text says what is wrong.
#pragma once

class CWitness;
class QString;

namespace Rules {

QString presets(const CWitness &witness);
QString signalThreads(const CWitness &witness);
QString protocolThread(const CWitness &witness);
QString everyEndReported(const CWitness &witness);
QString usefulFlag(const CWitness &witness);
QString monitorEntries(const CWitness &witness);
QString monitorBytes(const CWitness &witness);
QString journalRecords(const CWitness &witness);
QString ownership(const CWitness &witness);
QString stopReturnsFirst(const CWitness &witness);
QString quietAfterFinish(const CWitness &witness);

/// All rules that hold whatever the host does in between.
QString always(const CWitness &witness);

} // namespace Rules
