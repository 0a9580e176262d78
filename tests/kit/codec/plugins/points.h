// The data type of the plug-in of these tests.
#pragma once

#include <string>
#include <vector>

struct Point {
    double x = 0;
    double y = 0;

    template <class Archive>
    void serialize(Archive& archive)
    {
        archive(x, y);
    }
};

struct Points {
    std::string name;
    std::vector<Point> points;

    template <class Archive>
    void serialize(Archive& archive)
    {
        archive(name, points);
    }
};
