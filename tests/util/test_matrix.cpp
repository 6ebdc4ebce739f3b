// Dense matrices: shape and index checks, operators, determinant with row-addition pivoting,
// cofactor inversion, Gaussian solution, and the exception each misuse raises.
#include <tavrin/util/matrix.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <initializer_list>
#include <limits>
#include <random>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

// Builds a matrix from rows of values.
matrix M(std::initializer_list<std::initializer_list<double>> rows)
{
    const unsigned int r = static_cast<unsigned int>(rows.size());
    const unsigned int c = static_cast<unsigned int>(rows.begin()->size());
    matrix m(r, c, 0.0);
    unsigned int i = 1;
    for (const auto& line : rows)
    {
        unsigned int j = 1;
        for (double v : line)
            m(i, j++) = v;
        ++i;
    }
    return m;
}

// The kind and function of the CMatrixException that `op` throws; kind -1 when nothing is thrown.
struct CThrown
{
    int kind = -1;
    std::wstring function;
};

CThrown Catch(const std::function<void()>& op)
{
    CThrown t;
    try
    {
        op();
    }
    catch (const CMatrixException& e)
    {
        t.kind = e.GetErrorCode();
        t.function = e.GetFunction();
    }
    return t;
}

#define EXPECT_MATRIX_THROW(expr, expectedKind, expectedFunction)                                  \
    do                                                                                             \
    {                                                                                              \
        const CThrown t_ = Catch([&] { (void)(expr); });                                           \
        EXPECT_EQ(t_.kind, expectedKind) << #expr;                                                 \
        EXPECT_EQ(t_.function, std::wstring(expectedFunction)) << #expr;                           \
    } while (0)

bool Near(const matrix& a, const matrix& b, double tolerance)
{
    if (!same_dim(a, b))
        return false;
    for (unsigned int i = 1; i <= a.rows(); ++i)
        for (unsigned int j = 1; j <= a.cols(); ++j)
            if (!(std::fabs(a(i, j) - b(i, j)) <= tolerance))
                return false;
    return true;
}

matrix Identity(unsigned int n)
{
    matrix m(n, n, 0.0);
    for (unsigned int i = 1; i <= n; ++i)
        m(i, i) = 1.0;
    return m;
}

matrix Random(std::mt19937& rng, unsigned int rows, unsigned int cols)
{
    std::uniform_real_distribution<double> value(-10.0, 10.0);
    matrix m(rows, cols);
    for (unsigned int i = 1; i <= rows; ++i)
        for (unsigned int j = 1; j <= cols; ++j)
            m(i, j) = value(rng);
    return m;
}

const CMatrixException::EException kDimension = CMatrixException::InvalidMatrixDimension;
const CMatrixException::EException kIncompatible = CMatrixException::IncompatibleMatrixDimension;
const CMatrixException::EException kIndex = CMatrixException::InvalidIndex;
const CMatrixException::EException kDivision = CMatrixException::DivisionByZero;

} // namespace

TEST(Matrix, ConstructionShapeAndIndices)
{
    EXPECT_MATRIX_THROW(matrix(0, 3, 1.0), kDimension, L"tavrin::matrix::matrix");
    EXPECT_MATRIX_THROW(matrix(3, 0, 1.0), kDimension, L"tavrin::matrix::matrix");

    const matrix m(2, 3, 7.5);
    EXPECT_EQ(m.rows(), 2u);
    EXPECT_EQ(m.cols(), 3u);
    for (unsigned int i = 1; i <= 2; ++i)
        for (unsigned int j = 1; j <= 3; ++j)
            EXPECT_EQ(m(i, j), 7.5);

    // The const call operator hands out a writable element.
    m(2, 3) = -1.0;
    EXPECT_EQ(m(2, 3), -1.0);
    EXPECT_MATRIX_THROW(m(0, 1), kIndex, L"tavrin::matrix::operator ()");
    EXPECT_MATRIX_THROW(m(1, 0), kIndex, L"tavrin::matrix::operator ()");
    EXPECT_MATRIX_THROW(m(3, 1), kIndex, L"tavrin::matrix::operator ()");
    EXPECT_MATRIX_THROW(m(1, 4), kIndex, L"tavrin::matrix::operator ()");

    // Row-major, 1-based: rows and columns come out as written.
    const matrix a = M({{1, 2, 3}, {4, 5, 6}});
    EXPECT_EQ(row(a, 2), M({{4, 5, 6}}));
    EXPECT_EQ(col(a, 3), M({{3}, {6}}));
    EXPECT_EQ(transpose(a), M({{1, 4}, {2, 5}, {3, 6}}));
    EXPECT_MATRIX_THROW(row(a, 0), kIndex, L"tavrin::row");
    EXPECT_MATRIX_THROW(row(a, 3), kIndex, L"tavrin::row");
    EXPECT_MATRIX_THROW(col(a, 4), kIndex, L"tavrin::col");
}

TEST(Matrix, CopyAssignResizeClear)
{
    matrix a = M({{1, 2}, {3, 4}});
    matrix b(a);
    b(1, 1) = 100.0; // deep copy
    EXPECT_EQ(a(1, 1), 1.0);

    matrix c(3, 1, 9.0);
    c = a; // takes the other's shape
    EXPECT_EQ(c, a);
    c(2, 2) = 0.0;
    EXPECT_EQ(a(2, 2), 4.0);
    c = c;
    EXPECT_EQ(c, M({{1, 2}, {3, 0}}));

    // A zero dimension throws before the object changes.
    EXPECT_MATRIX_THROW(a.resize(0, 2, 1.0), kDimension, L"tavrin::matrix::resize");
    EXPECT_MATRIX_THROW(a.resize(2, 0, 1.0), kDimension, L"tavrin::matrix::resize");
    EXPECT_EQ(a, M({{1, 2}, {3, 4}}));

    a.resize(1, 3, 2.5);
    EXPECT_EQ(a, M({{2.5, 2.5, 2.5}}));
    a.clear(-1.0);
    EXPECT_EQ(a, M({{-1, -1, -1}}));

    EXPECT_EQ(-M({{1, -2}}), M({{-1, 2}}));
    EXPECT_EQ(+M({{1, -2}}), M({{1, -2}}));
}

TEST(Matrix, EqualityAndElementWiseOperators)
{
    // Equal elements in different shapes are different matrices.
    EXPECT_NE(M({{1, 2, 3, 4}}), M({{1, 2}, {3, 4}}));
    EXPECT_FALSE(M({{1, 2, 3, 4}}) == M({{1, 2}, {3, 4}}));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_NE(M({{nan}}), M({{nan}}));

    const matrix a = M({{1, 2}, {3, 4}});
    EXPECT_EQ(a + a, M({{2, 4}, {6, 8}}));
    EXPECT_EQ(a - M({{1, 1}, {1, 1}}), M({{0, 1}, {2, 3}}));
    EXPECT_MATRIX_THROW(a + M({{1, 2}}), kIncompatible, L"tavrin::operator +");
    EXPECT_MATRIX_THROW(a - M({{1}, {2}}), kIncompatible, L"tavrin::operator -");

    EXPECT_EQ(a * 2.0, M({{2, 4}, {6, 8}}));
    EXPECT_EQ(0.5 * a, M({{0.5, 1}, {1.5, 2}}));

    // Division is element-wise, not by an inverse.
    EXPECT_EQ(a / a, M({{1, 1}, {1, 1}}));
    const matrix q = M({{1, -1}}) / M({{0, 0}});
    EXPECT_TRUE(std::isinf(q(1, 1)) && q(1, 1) > 0);
    EXPECT_TRUE(std::isinf(q(1, 2)) && q(1, 2) < 0);
    EXPECT_MATRIX_THROW(a / M({{1, 2}}), kIncompatible, L"tavrin::operator /");
    EXPECT_MATRIX_THROW(a / M({{1}, {2}}), kIncompatible, L"tavrin::operator /");

    EXPECT_EQ(a / 2.0, M({{0.5, 1}, {1.5, 2}}));
    EXPECT_MATRIX_THROW(a / 0.0, kDivision, L"tavrin::operator /");
    EXPECT_MATRIX_THROW(a / -0.0, kDivision, L"tavrin::operator /");
    EXPECT_TRUE(std::isnan((a / nan)(1, 1))); // NaN is accepted as a divisor
}

TEST(Matrix, Product)
{
    const matrix a = M({{1, 2, 3}, {4, 5, 6}});
    const matrix b = M({{7, 8}, {9, 10}, {11, 12}});
    EXPECT_EQ(a * b, M({{58, 64}, {139, 154}}));
    EXPECT_EQ(b * a, M({{39, 54, 69}, {49, 68, 87}, {59, 82, 105}}));
    EXPECT_MATRIX_THROW(a * a, kIncompatible, L"tavrin::operator *");
    // Row times column gives a 1 x 1 matrix.
    EXPECT_EQ(M({{1, 2, 3}}) * M({{4}, {5}, {6}}), M({{32}}));
}

TEST(Matrix, DeterminantCases)
{
    // Row scaling gives scale 1 * 1, the pivot step adds row 2 to row 1.
    EXPECT_EQ(determinant(M({{0, 1}, {1, 0}})), -1.0);
    EXPECT_EQ(determinant(M({{-4}})), -4.0);
    EXPECT_EQ(determinant(M({{0}})), 0.0);
    // A zero row or a singular matrix gives 0 without an exception.
    EXPECT_EQ(determinant(M({{1, 2, 3}, {0, 0, 0}, {4, 5, 6}})), 0.0);
    EXPECT_EQ(determinant(M({{1, 2}, {2, 4}})), 0.0);
    EXPECT_NEAR(determinant(M({{2, 0, 0}, {0, 3, 0}, {0, 0, 4}})), 24.0, 1e-12);
    EXPECT_NEAR(determinant(M({{0, 0, 1}, {0, 1, 0}, {1, 0, 0}})), -1.0, 1e-12);
    // A tiny leading element does not spoil the result.
    EXPECT_NEAR(determinant(M({{1e-20, 1}, {1, 1}})), -1.0, 1e-12);
    EXPECT_MATRIX_THROW(determinant(M({{1, 2, 3}})), kDimension, L"tavrin::determinant");

    EXPECT_NEAR(minor(M({{1, 2, 3}, {4, 5, 6}, {7, 8, 10}}), 2, 3), 1 * 8 - 2 * 7, 1e-12);
    EXPECT_NEAR(minor(M({{1, 2}, {3, 4}}), 1, 1), 4.0, 1e-12);
    EXPECT_MATRIX_THROW(minor(M({{5}}), 1, 1), kDimension, L"tavrin::minor");
    EXPECT_MATRIX_THROW(minor(M({{1, 2, 3}, {4, 5, 6}}), 1, 1), kDimension, L"tavrin::minor");
    EXPECT_MATRIX_THROW(minor(M({{1, 2}, {3, 4}}), 0, 1), kIndex, L"tavrin::minor");
    EXPECT_MATRIX_THROW(minor(M({{1, 2}, {3, 4}}), 1, 3), kIndex, L"tavrin::minor");
}

TEST(Matrix, DeterminantAgreesWithDirectFormula)
{
    std::mt19937 rng(20240611u);
    for (int n = 0; n < 20000; ++n)
    {
        const matrix a = Random(rng, 2, 2);
        const double direct = a(1, 1) * a(2, 2) - a(1, 2) * a(2, 1);
        ASSERT_NEAR(determinant(a), direct, 1e-9 * (1.0 + std::fabs(direct))) << "2x2 #" << n;
    }
    for (int n = 0; n < 20000; ++n)
    {
        matrix a = Random(rng, 3, 3);
        if (n % 10 == 0)
            a(2, 1) = a(3, 1) = 0.0, a(1, 1) = 0.0; // forces the pivoting step
        const double direct = a(1, 1) * (a(2, 2) * a(3, 3) - a(2, 3) * a(3, 2)) -
                              a(1, 2) * (a(2, 1) * a(3, 3) - a(2, 3) * a(3, 1)) +
                              a(1, 3) * (a(2, 1) * a(3, 2) - a(2, 2) * a(3, 1));
        ASSERT_NEAR(determinant(a), direct, 1e-9 * (1.0 + std::fabs(direct))) << "3x3 #" << n;
    }
    // det(A * B) = det(A) * det(B) for larger matrices.
    for (int n = 0; n < 200; ++n)
    {
        const unsigned int size = 4 + n % 4;
        const matrix a = Random(rng, size, size);
        const matrix b = Random(rng, size, size);
        const double product = determinant(a) * determinant(b);
        ASSERT_NEAR(determinant(a * b), product, 1e-8 * (1.0 + std::fabs(product)));
    }
}

TEST(Matrix, Invert)
{
    EXPECT_EQ(invert(M({{4}})), M({{0.25}}));
    EXPECT_TRUE(Near(invert(M({{1, 2}, {3, 4}})), M({{-2, 1}, {1.5, -0.5}}), 1e-12));
    EXPECT_MATRIX_THROW(invert(M({{1, 2}, {2, 4}})), kDivision, L"tavrin::invert");
    EXPECT_MATRIX_THROW(invert(M({{0}})), kDivision, L"tavrin::invert");
    EXPECT_MATRIX_THROW(invert(M({{1, 2, 3}, {4, 5, 6}})), kDimension, L"tavrin::invert");

    std::mt19937 rng(7u);
    for (int n = 0; n < 300; ++n)
    {
        const unsigned int size = 2 + n % 4;
        const matrix a = Random(rng, size, size);
        if (std::fabs(determinant(a)) < 1e-3)
            continue;
        ASSERT_TRUE(Near(a * invert(a), Identity(size), 1e-8)) << "size " << size << " #" << n;
        ASSERT_TRUE(Near(invert(a) * a, Identity(size), 1e-8)) << "size " << size << " #" << n;
    }
}

TEST(Matrix, Gauss)
{
    // The checks run in a fixed order: shape of a, rows of b, columns of b, then the values.
    EXPECT_MATRIX_THROW(gauss(M({{1, 2}}), M({{1, 2}, {3, 4}, {5, 6}})), kDimension, L"tavrin::gauss");
    EXPECT_MATRIX_THROW(gauss(M({{1, 2}, {3, 4}}), M({{1, 2}, {3, 4}, {5, 6}})), kIncompatible, L"tavrin::gauss");
    EXPECT_MATRIX_THROW(gauss(M({{1, 2}, {3, 4}}), M({{1, 2}, {3, 4}})), kDimension, L"tavrin::gauss");
    EXPECT_MATRIX_THROW(gauss(M({{1, 2}, {0, 0}}), M({{1}, {0}})), kDivision, L"tavrin::gauss");
    EXPECT_MATRIX_THROW(gauss(M({{1, 2}, {2, 4}}), M({{1}, {2}})), kDivision, L"tavrin::gauss");

    EXPECT_TRUE(Near(gauss(M({{2, 1}, {1, 3}}), M({{3}, {5}})), M({{0.8}, {1.4}}), 1e-12));
    EXPECT_TRUE(Near(gauss(M({{0, 1}, {1, 0}}), M({{2}, {3}})), M({{3}, {2}}), 1e-12));
    // Without pivoting the tiny leading element would wipe out the first unknown.
    EXPECT_TRUE(Near(gauss(M({{1e-20, 1}, {1, 1}}), M({{1}, {2}})), M({{1}, {1}}), 1e-12));
    EXPECT_EQ(gauss(M({{4}}), M({{2}})), M({{0.5}}));

    std::mt19937 rng(11u);
    for (int n = 0; n < 500; ++n)
    {
        const unsigned int size = 1 + n % 6;
        const matrix a = Random(rng, size, size);
        if (std::fabs(determinant(a)) < 1e-3)
            continue;
        const matrix b = Random(rng, size, 1);
        const matrix x = gauss(a, b);
        ASSERT_EQ(x.rows(), size);
        ASSERT_TRUE(Near(a * x, b, 1e-8)) << "size " << size << " #" << n;
        ASSERT_TRUE(Near(x, invert(a) * b, 1e-7)) << "size " << size << " #" << n;
    }
}

TEST(Matrix, NormAndExceptionTexts)
{
    EXPECT_EQ(norm(M({{3, 4}})), 5.0);
    EXPECT_EQ(norm(M({{1, 1}, {1, 1}})), 2.0);
    EXPECT_EQ(norm(M({{0}})), 0.0);

    try
    {
        (void)M({{1}})(2, 1);
        FAIL() << "no exception";
    }
    catch (const CStdException& e)
    {
        EXPECT_EQ(e.GetErrorCodeStr(), L"3");
        ustring text;
        EXPECT_TRUE(e.GetSource(text));
        EXPECT_EQ(text, L"Matrix Library");
        EXPECT_TRUE(e.GetErrorMessage(text));
        EXPECT_EQ(text, L"Invalid Index");
        EXPECT_GT(e.GetLine(), 0u);
    }
}
