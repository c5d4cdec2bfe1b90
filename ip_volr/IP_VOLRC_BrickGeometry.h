// Plane geometry of the raster: lines and points of two dimensions.
#pragma once

// The line a x + b y + c = 0.
class LineEquation2D {
public:
    LineEquation2D(double a, double b, double c) : m_A(a), m_B(b), m_C(c) {}

    void SetParams(double a, double b, double c) {
        m_A = a;
        m_B = b;
        m_C = c;
    }
    void GetParams(double& a, double& b, double& c) const {
        a = m_A;
        b = m_B;
        c = m_C;
    }

private:
    double m_A;
    double m_B;
    double m_C;
};

// A point in raster coordinates (pixels).
class Point2D {
public:
    Point2D(double x, double y) : m_X(x), m_Y(y) {}

    void SetParams(double x, double y) {
        m_X = x;
        m_Y = y;
    }
    void GetParams(double& x, double& y) const {
        x = m_X;
        y = m_Y;
    }

private:
    double m_X;
    double m_Y;
};
