// `abonent doctor`: what is wrong with this installation, or with a call, and what to do about it.
#include "host/commands/commands.h"

#include "host/cinterruption.h"
#include "host/commands/calltarget.h"
#include "host/commands/commandhelp.h"
#include "host/commands/commandline.h"
#include "host/commands/exitcodes.h"
#include "host/commands/findingoutput.h"
#include "host/health/callwalk.h"
#include "host/health/checks.h"

namespace {

int examine(FindingOutput *output)
{
    const HealthContext around = HealthContext::look();
    for (const HealthCheck &check : healthChecks()) {
        for (const Finding &finding : check.run(around))
            output->add(check.name, check.title, finding);
    }
    output->sum();
    return output->errors() > 0 ? ExitTrouble : ExitDone;
}

int call(const CallTarget &target, FindingOutput *output)
{
    const CallWalk::End end =
        CallWalk::walk(target, [output](const char *step, const char *title, const Finding &finding) {
            output->add(step, title, finding);
        });
    output->sum();
    constexpr struct
    {
        CallWalk::End end;
        ExitCode code;
    } codes[] = {{CallWalk::NotCalled, ExitUsage},
                 {CallWalk::OwnTrouble, ExitTrouble},
                 {CallWalk::Forbidden, ExitBadValue},
                 {CallWalk::Unreachable, ExitNoAnswer},
                 {CallWalk::SomebodyElse, ExitSomebodyElse}};
    for (const auto &row : codes) {
        if (row.end == end)
            return row.code;
    }
    return ExitDone;
}

} // namespace

int runDoctor(const CommandLine &line)
{
    CallTarget target;
    target.abonent = line.operands.value(0);
    if (line.operands.size() > 1 && !target.setAddress(line.operands[1]))
        return refuse(line, QStringLiteral("Адрес абонента задан неверно: %1").arg(line.operands[1]));
    CInterruption::release();
    FindingOutput output(line.has("json"));
    return line.operands.isEmpty() ? examine(&output) : call(target, &output);
}
