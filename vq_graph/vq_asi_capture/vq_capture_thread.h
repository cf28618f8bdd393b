#pragma once
// The life of the element's capture thread: launch, stop (at once or deferred),
// a start that waits for a thread left in a push, and the end-of-stream hand-over.
//
// Why a stop may be deferred: sinks reach PAUSED before their source does, and a
// paused sink keeps the next pushed buffer waiting for preroll (an appsink whose
// queue is full waits for the application). A flush would free the push but makes
// filesink truncate its file on flush-stop, so, as a live GstBaseSrc does, a stop
// that finds the thread still in its push after a short wait leaves it there
// (eStopping) and the rest of the stop goes to the next start or close: by then
// the sink plays again or flushes on its way down, and the push returns. Left
// running, the thread must drop the rest of its frame (dropping()): the pad may
// have been deactivated and activated again for the next start.
//
// Why a start may be deferred: joining that thread from the start could wait on
// the application itself, so a start that finds it still running launches the new
// thread at once and that thread first joins the old one, then runs the start's
// body (launch_after_previous).
//
// Methods other than dropping(), eos_sent() and take_eos() are called from
// GStreamer's state changes, which never run at the same time.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <thread>

class vq_capture_thread {
public:
    enum eState {
        eIdle,      // no thread, or its stop has been completed
        eRunning,   // capturing: the exit signal is not set
        eStopping,  // exit signalled, the thread is still inside a downstream push
        eReturned,  // the thread has returned and waits to be joined
    };
    // The thread's body; the future becomes ready when the thread is to end.
    using Body = std::function<void(std::future<void>)>;

    vq_capture_thread() = default;
    ~vq_capture_thread();
    vq_capture_thread(const vq_capture_thread&) = delete;
    vq_capture_thread& operator=(const vq_capture_thread&) = delete;

    eState state() const;

    // Runs body on a new thread with a fresh exit signal. The state must be eIdle.
    void launch(Body body);
    // A start while the previous thread is still running (eStopping): the new thread
    // joins it first, then runs body unless a stop came meanwhile. The previous
    // thread's resources are body's to release.
    void launch_after_previous(Body body);
    // Signals the thread to end and waits for it at most `wait` when mayDefer. True
    // when no thread is left running (joined, or none), so the caller can release
    // what it used; false when it was left in its push (eStopping).
    bool stop(bool mayDefer, std::chrono::milliseconds wait);
    // Joins a thread that has returned (eReturned); the state becomes eIdle.
    void join_returned();

    // On the capture thread: a deferred stop left it running; push nothing more.
    bool dropping() const { return m_bDropping.load(std::memory_order_relaxed); }

    // An end of stream for the capture thread to push after its frame; only while
    // eRunning. False when no capture is running (the caller pushes it itself).
    bool request_eos(uint32_t seqnum);
    // On the capture thread: true once, with its sequence number, when an end of
    // stream was requested; from then on eos_sent() holds until the next launch.
    bool take_eos(uint32_t& seqnum);
    bool eos_sent() const { return m_bEosSent.load(std::memory_order_relaxed); }

private:
    void start_thread(Body body);

    std::thread m_thread;
    std::shared_ptr<std::promise<void>> m_exit;  // reset once signalled
    std::future<void> m_done;                    // ready once the thread has returned
    std::atomic<bool> m_bDropping{false};
    std::atomic<bool> m_bEosPending{false};
    std::atomic<uint32_t> m_nEosSeqnum{0};
    std::atomic<bool> m_bEosSent{false};
};
