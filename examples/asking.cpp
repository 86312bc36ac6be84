// Two processes that talk over a data channel: one asks, the other answers.
//
//   asking 101                   answers, as process 101, until whoever asked hangs up
//   asking 102 101 WORD...       asks process 101, as process 102, about each word
//
// Both need the communications manager of their home directory, $KRHOME; scripts/run-messages.sh
// makes a home, starts the small manager of the tests in it and runs both. Ids are chosen by hand
// here; where there is a process manager, that gives them out. The exit status is 1 when the
// manager or the other process is not there, or goes away.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/context.h"
#include "core/msgchannel.h"
#include "core/msgwait.h"
#include "core/objwrappers.h"
#include "core/process.h"
#include "core/sys.h"

constexpr MsgTypeT QuestionType = 20000, AnswerType = 20001;  // the program's own kinds

static MsgWaitResultE Answer(MsgMessageO oQuestion, void* /*oCookie*/) {
    char acAnswer[32];
    ObjHolder<ObjStringS> oText;
    // What arrives is checked: anybody may send anything under this type.
    if (MsgGetObject(oText.Address(), oQuestion, ObjStringMagic) != TRUE ||
        ObjGetString(oText.Get()) == nullptr)
        return eMsgWaitResultNotHandled;
    std::snprintf(acAnswer, sizeof(acAnswer), "%zu bytes", std::strlen(ObjGetString(oText.Get())));
    const ObjHolder<ObjStringS> oAnswer(ObjStringNew(acAnswer));
    MsgSendReply(oQuestion, AnswerType, oAnswer.Get());  // the way that the question came
    return eMsgWaitResultHandled;
}

static MsgWaitResultE HungUp(MsgMessageO /*oMessage*/, void* /*oCookie*/) {
    return eMsgWaitResultExit;  // ends the process, in order
}

static int Ask(ProcIdT tId, char** ppstrWords) {
    ObjHolder<MsgAddressS> oProcess, oChannel;
    // The communications manager tells at once when there is no such process.
    if (MsgCreateAddress(oProcess.Address(), SysLocalMachineName(), tId) != TRUE ||
        MsgChannelOpenInternal(oChannel.Address(), oProcess.Get(), nullptr, nullptr,
                               eMsgChannelBlocking, eMsgChannelWaitForAccept,
                               eMsgChannelWaitForOk) != TRUE)
        return std::printf("process %d cannot be reached\n", tId), 1;
    for (; *ppstrWords != nullptr; ppstrWords++) {
        const ObjHolder<ObjStringS> oWord(ObjStringNew(*ppstrWords));
        ObjHolder<ObjStringS> oAnswer;
        if (MsgWaitInterchangeTimeout(oAnswer.Address(), oChannel.Get(), QuestionType, oWord.Get(),
                                      AnswerType, ObjStringMagic, 10) != TRUE)
            return std::printf("no answer about %s\n", *ppstrWords), 1;
        std::printf("%s: %s\n", *ppstrWords, ObjGetString(oAnswer.Get()));
    }
    MsgChannelClose(oChannel.Address());
    ContextReleaseThread();  // sends what is still queued, then closes the channels
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 2 || ContextInitialize() != TRUE || ProcSetId(std::atoi(argv[1])) != TRUE ||
        MsgIpcConnect(eMsgProcTypeProcess) != TRUE)
        return std::puts("no communications manager"), 1;
    std::printf("process %d is there\n", ProcGetId());
    std::fflush(stdout);
    if (argc > 2) return Ask(std::atoi(argv[2]), argv + 3);
    MsgWaitAddHandler(QuestionType, Answer, nullptr);
    MsgWaitAddHandler(MSG_CHANNEL_DOWN_MSG, HungUp, nullptr);
    while (MsgWaitPollWithTimeout(nullptr) == TRUE) {
    }  // pings, new channels and a lost manager are the default handlers' business
    return 1;
}
