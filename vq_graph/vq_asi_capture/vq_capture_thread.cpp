#include "vq_asi_capture/vq_capture_thread.h"

#include <utility>

namespace {

bool is_ready(const std::future<void>& done) {
    return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace

vq_capture_thread::~vq_capture_thread() {
    if (m_thread.joinable())
        stop(false, std::chrono::milliseconds(0));
}

vq_capture_thread::eState vq_capture_thread::state() const {
    if (!m_thread.joinable())
        return eIdle;
    if (is_ready(m_done))
        return eReturned;
    return m_exit ? eRunning : eStopping;
}

void vq_capture_thread::start_thread(Body body) {
    m_bEosPending = false;
    m_bEosSent = false;
    m_exit = std::make_shared<std::promise<void>>();
    auto done = std::make_shared<std::promise<void>>();
    m_done = done->get_future();
    m_thread = std::thread(
        [body = std::move(body), done](std::future<void> exit) {
            body(std::move(exit));
            done->set_value();
        },
        m_exit->get_future());
}

void vq_capture_thread::launch(Body body) {
    m_bDropping = false;
    start_thread(std::move(body));
}

void vq_capture_thread::launch_after_previous(Body body) {
    auto previous = std::make_shared<std::thread>(std::move(m_thread));
    start_thread([this, previous, body = std::move(body)](std::future<void> exit) {
        previous->join();
        // Stopped again meanwhile: the release is left to the next start or close.
        if (is_ready(exit))
            return;
        // A stop from here on still finds exit set before any packet is pushed.
        m_bDropping = false;
        body(std::move(exit));
    });
}

bool vq_capture_thread::stop(bool mayDefer, std::chrono::milliseconds wait) {
    if (!m_thread.joinable())
        return true;
    if (m_exit) {
        m_exit->set_value();
        m_exit.reset();
    }
    if (mayDefer && m_done.wait_for(wait) != std::future_status::ready) {
        m_bDropping = true;
        return false;
    }
    m_thread.join();
    return true;
}

void vq_capture_thread::join_returned() {
    if (m_thread.joinable())
        m_thread.join();
}

bool vq_capture_thread::request_eos(uint32_t seqnum) {
    if (state() != eRunning)
        return false;
    m_nEosSeqnum = seqnum;
    m_bEosPending = true;
    return true;
}

bool vq_capture_thread::take_eos(uint32_t& seqnum) {
    if (!m_bEosPending.exchange(false))
        return false;
    seqnum = m_nEosSeqnum;
    m_bEosSent = true;
    return true;
}
