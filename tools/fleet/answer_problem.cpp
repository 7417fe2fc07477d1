#include "fleet/answer_problem.h"

#include "printable_text.h"

std::optional<Problem> problemOf(const fleet::Answer& answer) {
    using fleet::Status;
    const std::string text = printable(answer.text);
    switch (answer.status) {
    case Status::ok:
        return std::nullopt;
    case Status::failed:
        return Problem{.status = answer.code ? statusOf(*answer.code) : ExitStatus::failure,
                       .code = answer.code,
                       .text = text};
    case Status::absent:
        return Problem{.status = ExitStatus::notFound, .code = answer.code, .text = text};
    case Status::busy:
        return Problem{.code = {}, .text = "busy: " + text + "; try again later"};
    case Status::expired:
        return Problem{.status = ExitStatus::timeOut, .code = {}, .text = "not run: " + text};
    case Status::refused:
        return Problem{.code = {}, .text = "refused: " + text};
    case Status::unknown:
        return Problem{.code = {}, .text = "result unknown: " + text};
    }
    return Problem{.code = {}, .text = text};
}
