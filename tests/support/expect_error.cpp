#include "tests/support/expect_error.h"

#include <typeinfo>

namespace test_support {

namespace {

std::string describe(long long code, std::string const& message, Props const& props) {
    std::string text = "code " + std::to_string(code) + ", \"" + message + "\"";
    for (auto const& [name, value] : props)
        text.append(", ").append(name).append("=\"").append(value).append("\"");
    return text;
}

std::string describe(yx::CError const& error) {
    return describe(error.getCode(), error.getMessage().toStdString(), propsOf(error));
}

/// Runs `action` and hands what it throws to `check`, if it is an `Error` and nothing derived.
template <class Error>
testing::AssertionResult throwsJust(std::function<void()> const& action,
                                    std::function<std::string(Error const&)> const& check) {
    try {
        action();
    } catch (Error const& error) {
        if (typeid(error) != typeid(Error))
            return testing::AssertionFailure() << "threw a derived type, " << describe(error);
        std::string const difference = check(error);
        return difference.empty() ? testing::AssertionSuccess()
                                  : testing::AssertionFailure() << difference;
    } catch (std::exception const& error) {
        return testing::AssertionFailure()
               << "threw another type, " << typeid(error).name() << ": " << error.what();
    }
    return testing::AssertionFailure() << "threw nothing";
}

} // namespace

Props propsOf(yx::CError const& error) {
    Props props;
    for (int i = 0; i < error.getParams().getCount(); ++i) {
        props.emplace_back(error.getParams().getName(i).toStdString(),
                           error.getParams().getValue(i).toStdString());
    }
    return props;
}

testing::AssertionResult throwsIOError(yx::CIOError::Code code, std::string const& message,
                                       Props const& props, std::function<void()> const& action) {
    return throwsJust<yx::CIOError>(action, [&](yx::CIOError const& error) -> std::string {
        if (error.getIOCode() == code && error.getMessage().toStdString() == message &&
            propsOf(error) == props) {
            return "";
        }
        return "threw   " + describe(error) + "\nexpected " + describe(code, message, props);
    });
}

testing::AssertionResult throwsInvalidArg(std::string const& function, std::string const& message,
                                          std::function<void()> const& action) {
    return throwsJust<yx::CInvalidArgError>(
        action, [&](yx::CInvalidArgError const& error) -> std::string {
            std::string const actualFunction = error.getFunction().toStdString();
            if (actualFunction == function && error.getMessage().toStdString() == message)
                return "";
            return "threw    " + actualFunction + ": " + describe(error) + "\nexpected " +
                   function + ": \"" + message + "\"";
        });
}

testing::AssertionResult throwsInvalidArg(std::string const& function, std::string const& message,
                                          Props const& props, std::function<void()> const& action) {
    return throwsJust<yx::CInvalidArgError>(
        action, [&](yx::CInvalidArgError const& error) -> std::string {
            std::string const actualFunction = error.getFunction().toStdString();
            if (actualFunction == function && error.getCode() == -1 &&
                error.getMessage().toStdString() == message && propsOf(error) == props) {
                return "";
            }
            return "threw    " + actualFunction + ": " + describe(error) + "\nexpected " +
                   function + ": " + describe(-1, message, props);
        });
}

testing::AssertionResult throwsError(std::string const& message, Props const& props,
                                     std::function<void()> const& action) {
    return throwsJust<yx::CError>(action, [&](yx::CError const& error) -> std::string {
        if (error.getCode() == -1 && error.getDetail().isEmpty() &&
            error.getMessage().toStdString() == message && propsOf(error) == props) {
            return "";
        }
        return "threw   " + describe(error) + "\nexpected " + describe(-1, message, props);
    });
}

} // namespace test_support
