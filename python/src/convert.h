// Conversions between the library's types and Python: joint vectors and
// poses become numpy float64 arrays, JSON bodies dicts.
#pragma once

#include <json/json.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kelm_py {

namespace py = pybind11;

inline py::array_t<double> toPy(const std::vector<double>& values) {
    py::array_t<double> out(static_cast<py::ssize_t>(values.size()));
    std::copy(values.begin(), values.end(), out.mutable_data());
    return out;
}

inline py::array_t<double> toPy(const std::array<double, 7>& values) {
    py::array_t<double> out(7);
    std::copy(values.begin(), values.end(), out.mutable_data());
    return out;
}

// (n, 7) array.
inline py::array_t<double> toPy(const std::vector<std::array<double, 7>>& poses) {
    py::array_t<double> out({static_cast<py::ssize_t>(poses.size()), static_cast<py::ssize_t>(7)});
    double* data = out.mutable_data();
    for (const auto& pose : poses) data = std::copy(pose.begin(), pose.end(), data);
    return out;
}

// A 2-D array when every row has the same length, else a list of arrays
// (inverse kinematics gives an empty row for a pose without a solution).
inline py::object toPy(const std::vector<std::vector<double>>& rows) {
    bool rectangular = !rows.empty();
    for (const auto& row : rows) rectangular = rectangular && row.size() == rows.front().size();
    if (rectangular) {
        py::array_t<double> out({static_cast<py::ssize_t>(rows.size()), static_cast<py::ssize_t>(rows.front().size())});
        double* data = out.mutable_data();
        for (const auto& row : rows) data = std::copy(row.begin(), row.end(), data);
        return std::move(out);
    }
    py::list out;
    for (const auto& row : rows) out.append(toPy(row));
    return std::move(out);
}

inline py::list toPy(const std::vector<std::string>& texts) {
    py::list out;
    for (const auto& text : texts) out.append(py::str(text));
    return out;
}

template <typename Plain>
Plain toPy(Plain value) {
    return value;
}

// A dict (or anything json.dumps takes) as a JSON value; ValueError if it is
// no JSON object.
inline Json::Value toJson(const py::object& object) {
    const std::string text = py::module_::import("json").attr("dumps")(object).cast<std::string>();
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors) || !value.isObject())
        throw py::value_error("kelm: a request must be a JSON object (a dict)");
    return value;
}

// None for a null value.
inline py::object fromJson(const Json::Value& value) {
    if (value.isNull()) return py::none();
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return py::module_::import("json").attr("loads")(Json::writeString(builder, value));
}

}  // namespace kelm_py
