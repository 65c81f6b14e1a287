// SPDX-License-Identifier: MIT

// Descriptors run out, or have high numbers.

#include <fcntl.h>
#include <sys/resource.h>

#include <vector>

#include "Harness.h"
#include "Works.h"

namespace zarip::reliability {
namespace {

/// For the length of a scope the process may open only so many descriptors more.
class DescriptorLimit {
public:
    explicit DescriptorLimit(int left) {
        ::getrlimit(RLIMIT_NOFILE, &_old);
        rlimit limit = _old;
        limit.rlim_cur = static_cast<rlim_t>(FillGaps() + left);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    ~DescriptorLimit() {
        ::setrlimit(RLIMIT_NOFILE, &_old);
        for (const int fd : _filling) {
            ::close(fd);
        }
    }

private:
    /// The limit is one on numbers, so none below may be free. Returns the first free number.
    int FillGaps() {
        const int used = Usage::Now().descriptors;
        for (;;) {
            const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (fd < 0 || fd >= used + static_cast<int>(_filling.size())) {
                ::close(fd);
                return fd;
            }
            _filling.push_back(fd);
        }
    }

    rlimit _old{};
    std::vector<int> _filling;
};

}  // namespace

ROW(Descriptors,
    "Every kind of work with no, one, two, ... descriptors left, and with 1,100 open before: an exception or "
    "an error answer, no descriptor is left, the next operation right",
    60) {
    constexpr int kMany = 1'100;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    run.Expect(limit.rlim_max > kMany + 100, "only %ld descriptors are allowed",
               static_cast<long>(limit.rlim_max));
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const test::TempDir folder;
    Services services;
    std::vector<Work> works = LocalWorks(folder);
    for (const Work& work : services.GetWorks()) {
        works.push_back(work);
    }
    int attempts = 0;
    for (const bool areMany : {false, true}) {
        std::vector<int> open;
        while (areMany && open.size() < kMany) {
            open.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
        for (const Work& work : works) {
            run.Expect(Try(work) == Result::kRight, "%s: does not work at all", work.name);
            const Usage before = Usage::Now();
            Result result = Result::kReported;
            for (int left = 0; left < 40 && (result != Result::kRight || left < 12); ++left, ++attempts) {
                {
                    const DescriptorLimit few(left);
                    result = Try(work);
                }
                run.Expect(result != Result::kWrong || work.mayBeLost,
                           "%s: wrong result with %d descriptors left", work.name, left);
                run.Expect(Try(work) == Result::kRight, "%s: does not work after %d descriptors were left",
                           work.name, left);
            }
            run.Expect(result == Result::kRight, "%s: does not work with 40 descriptors", work.name);
            run.ExpectNothingLeft(before);
        }
        for (const int fd : open) {
            ::close(fd);
        }
    }
    run.Figure("%d attempts in %zu kinds of work", attempts, works.size());
}

}  // namespace zarip::reliability
