// Frames on their way from an encoder, which cannot wait, to a card, which may stand still for seconds.
#ifndef EXAMPLES_FRAME_QUEUE_H
#define EXAMPLES_FRAME_QUEUE_H

#include <condition_variable>
#include <deque>
#include <mutex>

#include "clip.h"

class FrameQueue
{
public:
    /// Takes a frame, without ever waiting. When the queue is full, the frame is lost, and so are all behind it up to a
    /// key frame that finds room: they could not be decoded without it.
    void Push(Frame frame)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_dropping = m_frames.size() >= m_most || (m_dropping && !frame.key);
        if (m_dropping)
        {
            m_lost++;
            return;
        }
        m_frames.push_back(std::move(frame));
        m_changed.notify_one();
    }

    /// Waits for a frame; false when the queue is closed and empty.
    bool Pop(Frame &frame)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_closed || !m_frames.empty(); });
        if (m_frames.empty())
        {
            return false;
        }
        frame = std::move(m_frames.front());
        m_frames.pop_front();
        return true;
    }

    /// What is in it can still be taken out.
    void Close()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_changed.notify_one();
    }

    /// Frames lost so far, and whether it goes on.
    uint64_t Lost(bool &dropping)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        dropping = m_dropping;
        return m_lost;
    }

    /// How many frames it holds at most. Before the threads run.
    void SetSize(size_t frames)
    {
        m_most = frames;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Frame> m_frames;
    size_t m_most = 0;
    uint64_t m_lost = 0;
    bool m_dropping = false;
    bool m_closed = false;
};

#endif
