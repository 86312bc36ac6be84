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
#include "core/objwrappers.h"
#include "core/process.h"
#include "core/sys.h"

namespace {

constexpr MsgTypeT QuestionType = 20000, AnswerType = 20001;  // the program's own kinds
constexpr int32 AnswerSeconds = 10;

BooleanT Say(MsgAddressO oTo, MsgTypeT tMsgType, const char* pstrText) {
    const ObjHolder<ObjStringS> oText(ObjStringNew(pstrText));
    return MsgSendObject(oTo, tMsgType, oText.Get());
}

BooleanT AskOne(MsgAddressO oChannel, const char* pstrWord) {
    ObjHolder<TimeTimeoutS> oTimeout;
    ObjHolder<MsgMessageS> oAnswer;
    ObjHolder<ObjStringS> oText;
    // The wait leaves other messages where they are, and ends when the channel goes down.
    if (TimeCreateAndSetTimeout(oTimeout.Address(), AnswerSeconds, 0) != TRUE ||
        Say(oChannel, QuestionType, pstrWord) != TRUE ||
        MsgReceiveMsgTypeFromAddress(oAnswer.Address(), AnswerType, oChannel, oTimeout.Get()) !=
            TRUE ||
        MsgGetObject(oText.Address(), oAnswer.Get(), ObjStringMagic) != TRUE) {
        std::printf("no answer about %s\n", pstrWord);
        return FALSE;
    }
    std::printf("%s: %s\n", pstrWord, ObjGetString(oText.Get()));
    return TRUE;
}

int Ask(ProcIdT tId, char** ppstrWords) {
    ObjHolder<MsgAddressS> oProcess;
    ObjHolder<MsgAddressS> oChannel;
    // Blocking: a send returns when the system has the bytes, so that this end cannot run ahead.
    // The manager tells at once when there is no such process.
    if (MsgCreateAddress(oProcess.Address(), SysLocalMachineName(), tId) != TRUE ||
        MsgChannelOpenInternal(oChannel.Address(), oProcess.Get(), nullptr, nullptr,
                               eMsgChannelBlocking, eMsgChannelWaitForAccept,
                               eMsgChannelWaitForOk) != TRUE) {
        std::printf("process %d cannot be reached\n", tId);
        return 1;
    }
    BooleanT bResult = TRUE;
    for (; *ppstrWords != nullptr && bResult == TRUE; ppstrWords++)
        bResult = AskOne(oChannel.Get(), *ppstrWords);
    MsgChannelClose(oChannel.Address());
    return bResult == TRUE ? 0 : 1;
}

void AnswerOne(MsgMessageO oQuestion) {
    char acAnswer[32];
    ObjHolder<ObjStringS> oText;
    // What arrives is checked: anybody may send anything under this type.
    if (MsgGetObject(oText.Address(), oQuestion, ObjStringMagic) != TRUE ||
        ObjGetString(oText.Get()) == nullptr) {
        MsgReturnUnknown(oQuestion, "a question is a text");
        return;
    }
    std::snprintf(acAnswer, sizeof(acAnswer), "%zu bytes", std::strlen(ObjGetString(oText.Get())));
    const ObjHolder<ObjStringS> oAnswer(ObjStringNew(acAnswer));
    MsgSendReply(oQuestion, AnswerType, oAnswer.Get());
}

int Answer() {
    for (;;) {
        ObjHolder<MsgMessageS> oMessage;
        ObjHolder<MsgAddressS> oSource;
        // A wait may also end without a message, because of a timer or a signal.
        if (MsgReceive(oMessage.Address(), nullptr) != TRUE) continue;
        switch (MsgType(oMessage.Get())) {
            case MSG_CONNECT_MSG:  // not waiting for the connect: others are served meanwhile
                MsgChannelCompleteInternal(nullptr, oMessage.Get(), eMsgChannelNonBlocking,
                                           eMsgChannelDoNotWaitForConnect, eMsgChannelSendOk);
                break;
            case MSG_CONNECTED_MSG:  // how that ended; questions come over the new channel
                break;
            case QuestionType:
                AnswerOne(oMessage.Get());
                break;
            case MSG_CHANNEL_DOWN_MSG:  // its address is the source; closing forgets the channel
                if (MsgGetSource(oSource.Address(), oMessage.Get()) == TRUE)
                    MsgChannelClose(oSource.Address());
                return 0;
            case MSG_LOST_RECEIVE_QUEUE_MSG:  // the manager is gone: nothing more will come
            case MSG_FATAL_SELECT_ERROR_MSG:
                return 1;
            default:
                MsgReturnUnknown(oMessage.Get(), "only questions are answered");
                break;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc == 3) return 2;
    if (ContextInitialize() != TRUE || ProcSetId(std::atoi(argv[1])) != TRUE ||
        MsgIpcConnect(eMsgProcTypeProcess) != TRUE) {
        std::puts("no communications manager");
        return 1;
    }
    std::printf("process %d is there\n", ProcGetId());
    std::fflush(stdout);
    const int result = argc == 2 ? Answer() : Ask(std::atoi(argv[2]), argv + 3);
    ContextReleaseThread();  // sends what is still queued, then closes the channels
    return result;
}
