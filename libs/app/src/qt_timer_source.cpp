#include <kestrin/app/timer_source.hpp>

#include <QTimer>

#include <utility>

namespace kestrin::app {
namespace {

class QtOneShotTimer final : public OneShotTimer
{
public:
    explicit QtOneShotTimer(std::function<void()> onTimeout)
    {
        timer_.setSingleShot(true);
        // A precise timer: the debounce promises its quiet period, not "about" it.
        timer_.setTimerType(Qt::PreciseTimer);
        QObject::connect(&timer_, &QTimer::timeout, std::move(onTimeout));
    }

    void start(std::chrono::milliseconds interval) override { timer_.start(interval); }
    void stop() override { timer_.stop(); }

private:
    QTimer timer_;
};

class QtTimerSource final : public TimerSource
{
public:
    std::unique_ptr<OneShotTimer> makeTimer(std::function<void()> onTimeout) override
    {
        return std::make_unique<QtOneShotTimer>(std::move(onTimeout));
    }
};

}  // namespace

std::shared_ptr<TimerSource> makeQtTimerSource()
{
    return std::make_shared<QtTimerSource>();
}

}  // namespace kestrin::app
