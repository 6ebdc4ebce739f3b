#include <tavrin/util/matrix.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <utility>

namespace tavrin {

namespace {

[[noreturn]] void Fail(unsigned int line, const wchar_t* function, CMatrixException::EException kind)
{
    throw CMatrixException(line, TAVRIN_WFILE, function, kind);
}

// Row-major working buffer shared by the determinant and the linear solver. Indices are 0-based
// here; the public interface is the only place that speaks 1-based.
struct CWork
{
    unsigned int nRows;
    unsigned int nCols;
    std::unique_ptr<double[]> data;

    CWork(unsigned int rows, unsigned int cols)
        : nRows(rows), nCols(cols), data(new double[static_cast<std::size_t>(rows) * cols])
    {
    }
    double& at(unsigned int r, unsigned int c) { return data[static_cast<std::size_t>(r) * nCols + c]; }
};

// Divides every row by its element of largest magnitude (the first one wins a tie) and returns
// the product of those elements in `scale`. False when a row is entirely zero.
bool ScaleRows(CWork& w, double& scale)
{
    scale = 1.0;
    for (unsigned int r = 0; r < w.nRows; ++r)
    {
        double best = 0.0;
        for (unsigned int c = 0; c < w.nCols; ++c)
        {
            const double v = w.at(r, c);
            if (std::fabs(v) > std::fabs(best))
                best = v;
        }
        if (best == 0.0)
            return false;
        scale *= best;
        for (unsigned int c = 0; c < w.nCols; ++c)
            w.at(r, c) /= best;
    }
    return true;
}

// Forward elimination over the first nRows columns, applied to all nCols columns. The pivot row
// is added to the current row rather than exchanged with it: that keeps the determinant as it is,
// so the caller never has to track a sign. False when a pivot is exactly zero.
bool Eliminate(CWork& w)
{
    const unsigned int n = w.nRows;
    for (unsigned int k = 0; k + 1 < n; ++k)
    {
        unsigned int p = k;
        double best = 0.0;
        for (unsigned int r = k; r < n; ++r)
        {
            if (std::fabs(w.at(r, k)) > best)
            {
                best = std::fabs(w.at(r, k));
                p = r;
            }
        }
        if (p != k)
        {
            for (unsigned int c = k; c < w.nCols; ++c)
                w.at(k, c) += w.at(p, c);
        }
        const double pivot = w.at(k, k);
        if (pivot == 0.0)
            return false;
        for (unsigned int r = k + 1; r < n; ++r)
        {
            const double f = -w.at(r, k) / pivot;
            for (unsigned int c = k; c < w.nCols; ++c)
                w.at(r, c) += f * w.at(k, c);
        }
    }
    return true;
}

} // namespace

// ------------------------------------------------------------------------------------- matrix

matrix::matrix(unsigned int rows, unsigned int cols, double value)
    : m_pData(nullptr), m_nRows(0), m_nCols(0)
{
    if (rows == 0 || cols == 0)
        Fail(__LINE__, L"tavrin::matrix::matrix", CMatrixException::InvalidMatrixDimension);
    resize(rows, cols, value);
}

matrix::matrix(const matrix& other)
    : m_pData(new double[static_cast<std::size_t>(other.m_nRows) * other.m_nCols]),
      m_nRows(other.m_nRows), m_nCols(other.m_nCols)
{
    std::copy(other.m_pData, other.m_pData + static_cast<std::size_t>(m_nRows) * m_nCols, m_pData);
}

matrix::~matrix()
{
    delete[] m_pData;
}

matrix& matrix::operator=(const matrix& other)
{
    if (this == &other)
        return *this;
    if (!same_dim(*this, other))
        resize(other.m_nRows, other.m_nCols);
    std::copy(other.m_pData, other.m_pData + static_cast<std::size_t>(m_nRows) * m_nCols, m_pData);
    return *this;
}

double& matrix::operator()(unsigned int i, unsigned int j) const
{
    if (i == 0 || j == 0 || i > m_nRows || j > m_nCols)
        Fail(__LINE__, L"tavrin::matrix::operator ()", CMatrixException::InvalidIndex);
    return m_pData[static_cast<std::size_t>(i - 1) * m_nCols + (j - 1)];
}

void matrix::resize(unsigned int rows, unsigned int cols, double value)
{
    if (rows == 0 || cols == 0)
        Fail(__LINE__, L"tavrin::matrix::resize", CMatrixException::InvalidMatrixDimension);
    const std::size_t count = static_cast<std::size_t>(rows) * cols;
    double* block = new double[count];
    std::fill(block, block + count, value);
    delete[] m_pData;
    m_pData = block;
    m_nRows = rows;
    m_nCols = cols;
}

void matrix::clear(double value)
{
    std::fill(m_pData, m_pData + static_cast<std::size_t>(m_nRows) * m_nCols, value);
}

matrix matrix::operator-() const
{
    return *this * -1.0;
}

matrix matrix::operator+() const
{
    return *this;
}

// ---------------------------------------------------------------------------- free functions

namespace {

// Element-wise combination of two equally shaped matrices.
template <class Op>
matrix Combine(const matrix& a, const matrix& b, Op op)
{
    matrix result(a.rows(), a.cols());
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= a.cols(); ++j)
            result(i, j) = op(a(i, j), b(i, j));
    return result;
}

template <class Op>
matrix Map(const matrix& a, Op op)
{
    matrix result(a.rows(), a.cols());
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= a.cols(); ++j)
            result(i, j) = op(a(i, j));
    return result;
}

CWork ToWork(const matrix& a, unsigned int extraCols)
{
    CWork w(a.rows(), a.cols() + extraCols);
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= a.cols(); ++j)
            w.at(i - 1, j - 1) = a(i, j);
    return w;
}

} // namespace

bool same_dim(const matrix& a, const matrix& b)
{
    return a.rows() == b.rows() && a.cols() == b.cols();
}

bool operator==(const matrix& a, const matrix& b)
{
    if (!same_dim(a, b))
        return false;
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= a.cols(); ++j)
            if (!(a(i, j) == b(i, j)))
                return false;
    return true;
}

bool operator!=(const matrix& a, const matrix& b)
{
    return !(a == b);
}

matrix operator+(const matrix& a, const matrix& b)
{
    if (!same_dim(a, b))
        Fail(__LINE__, L"tavrin::operator +", CMatrixException::IncompatibleMatrixDimension);
    return Combine(a, b, [](double x, double y) { return x + y; });
}

matrix operator-(const matrix& a, const matrix& b)
{
    if (!same_dim(a, b))
        Fail(__LINE__, L"tavrin::operator -", CMatrixException::IncompatibleMatrixDimension);
    return Combine(a, b, [](double x, double y) { return x - y; });
}

matrix operator*(const matrix& a, const matrix& b)
{
    if (a.cols() != b.rows())
        Fail(__LINE__, L"tavrin::operator *", CMatrixException::IncompatibleMatrixDimension);
    matrix result(a.rows(), b.cols());
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= b.cols(); ++j)
        {
            double sum = 0.0;
            for (unsigned int k = 1; k <= a.cols(); ++k)
                sum += a(i, k) * b(k, j);
            result(i, j) = sum;
        }
    return result;
}

matrix operator*(const matrix& a, double factor)
{
    return Map(a, [factor](double x) { return x * factor; });
}

matrix operator*(double factor, const matrix& a)
{
    return a * factor;
}

matrix operator/(const matrix& a, const matrix& b)
{
    if (a.rows() != b.rows() || a.cols() != b.cols())
        Fail(__LINE__, L"tavrin::operator /", CMatrixException::IncompatibleMatrixDimension);
    return Combine(a, b, [](double x, double y) { return x / y; });
}

matrix operator/(const matrix& a, double divisor)
{
    if (divisor == 0.0)
        Fail(__LINE__, L"tavrin::operator /", CMatrixException::DivisionByZero);
    return Map(a, [divisor](double x) { return x / divisor; });
}

matrix transpose(const matrix& a)
{
    matrix result(a.cols(), a.rows());
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= a.cols(); ++j)
            result(j, i) = a(i, j);
    return result;
}

matrix row(const matrix& a, unsigned int i)
{
    if (i == 0 || i > a.rows())
        Fail(__LINE__, L"tavrin::row", CMatrixException::InvalidIndex);
    matrix result(1, a.cols());
    for (unsigned int j = 1; j <= a.cols(); ++j)
        result(1, j) = a(i, j);
    return result;
}

matrix col(const matrix& a, unsigned int j)
{
    if (j == 0 || j > a.cols())
        Fail(__LINE__, L"tavrin::col", CMatrixException::InvalidIndex);
    matrix result(a.rows(), 1);
    for (unsigned int i = 1; i <= a.rows(); ++i)
        result(i, 1) = a(i, j);
    return result;
}

double determinant(const matrix& a)
{
    if (a.rows() != a.cols())
        Fail(__LINE__, L"tavrin::determinant", CMatrixException::InvalidMatrixDimension);
    CWork w = ToWork(a, 0);
    double scale = 1.0;
    if (!ScaleRows(w, scale) || !Eliminate(w))
        return 0.0;
    double det = scale;
    for (unsigned int k = 0; k < w.nRows; ++k)
        det *= w.at(k, k);
    return det;
}

double minor(const matrix& a, unsigned int i, unsigned int j)
{
    if (a.rows() < 2 || a.cols() < 2 || a.rows() != a.cols())
        Fail(__LINE__, L"tavrin::minor", CMatrixException::InvalidMatrixDimension);
    if (i == 0 || j == 0 || i > a.rows() || j > a.cols())
        Fail(__LINE__, L"tavrin::minor", CMatrixException::InvalidIndex);
    matrix sub(a.rows() - 1, a.cols() - 1);
    for (unsigned int r = 1, sr = 1; r <= a.rows(); ++r)
    {
        if (r == i)
            continue;
        for (unsigned int c = 1, sc = 1; c <= a.cols(); ++c)
        {
            if (c == j)
                continue;
            sub(sr, sc++) = a(r, c);
        }
        ++sr;
    }
    return determinant(sub);
}

matrix invert(const matrix& a)
{
    if (a.rows() != a.cols())
        Fail(__LINE__, L"tavrin::invert", CMatrixException::InvalidMatrixDimension);
    const double d = determinant(a);
    if (d == 0.0)
        Fail(__LINE__, L"tavrin::invert", CMatrixException::DivisionByZero);
    if (a.rows() == 1)
        return matrix(1, 1, 1.0 / a(1, 1));
    matrix cofactors(a.rows(), a.cols());
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= a.cols(); ++j)
        {
            const double m = minor(a, i, j);
            cofactors(i, j) = ((i + j) % 2 != 0) ? -m : m;
        }
    return transpose(cofactors) / d;
}

matrix gauss(const matrix& a, const matrix& b)
{
    const wchar_t* const function = L"tavrin::gauss";
    if (a.rows() != a.cols())
        Fail(__LINE__, function, CMatrixException::InvalidMatrixDimension);
    if (b.rows() != a.rows())
        Fail(__LINE__, function, CMatrixException::IncompatibleMatrixDimension);
    if (b.cols() != 1)
        Fail(__LINE__, function, CMatrixException::InvalidMatrixDimension);

    const unsigned int n = a.rows();
    CWork w = ToWork(a, 1);
    for (unsigned int i = 0; i < n; ++i)
        w.at(i, n) = b(i + 1, 1);
    double scale = 1.0;
    if (!ScaleRows(w, scale) || !Eliminate(w) || w.at(n - 1, n - 1) == 0.0)
        Fail(__LINE__, function, CMatrixException::DivisionByZero);

    matrix x(n, 1);
    for (unsigned int i = n; i-- > 0;)
    {
        double sum = w.at(i, n);
        for (unsigned int j = i + 1; j < n; ++j)
            sum -= w.at(i, j) * x(j + 1, 1);
        x(i + 1, 1) = sum / w.at(i, i);
    }
    return x;
}

double norm(const matrix& a)
{
    double sum = 0.0;
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= a.cols(); ++j)
            sum += a(i, j) * a(i, j);
    return std::sqrt(sum);
}

} // namespace tavrin
